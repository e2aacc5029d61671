#include <cmath>
#include <limits>
#include <stdexcept>
#include <vector>

#include "physiology/sif_assembly.h"
#include "physiology/sif_finalization.h"
#include "test_util.h"

using namespace vesk::backend;
using vesk::physiology::sif_axis_cell;

// Only a native caller can hand over a count without storage, or storage without a
// count; either makes the per-element yields present, and wrong.
TEST(SifFinalization, AnOverrideIsPresentWhenEitherItsPointerOrItsCountIs) {
  const std::vector<float> top{1, 2, 3, 4}, bottom{5, 6, 7, 8}, material_phi_f{0.04f};
  const std::vector<int32_t> ids{0, -1}, selected{1};
  const std::vector<float> yields{0.5f, 0.25f};
  SifProcessRequestView v;
  v.n_elements = 2, v.n_bands = 2, v.n_selected = 1, v.n_materials = 1;
  v.absorbed_top = {top.data(), 4}, v.absorbed_bottom = {bottom.data(), 4};
  v.material_ids = {ids.data(), 2}, v.material_phi_f = {material_phi_f.data(), 1};
  v.selected_band_indices = {selected.data(), 1};

  const SifProcessResult absent = finalize_sif_process(v);
  EXPECT_EQ(absent.phi_f, (std::vector<float>{0.04f, 0.0f}));
  EXPECT_EQ(absent.absorbed_top_selected, (std::vector<float>{2, 4}));

  v.element_phi_f = {nullptr, 2};
  expect_throw_text<std::invalid_argument>([&] { finalize_sif_process(v); },
                                           "element_phi_f buffer length mismatch");
  v.element_phi_f = {yields.data(), 0};
  expect_throw_text<std::invalid_argument>([&] { finalize_sif_process(v); },
                                           "element_phi_f buffer length mismatch");
  v.element_phi_f = {yields.data(), 2};
  EXPECT_EQ(finalize_sif_process(v).phi_f, yields);
}

// Whatever the rounding of position / extent * n, a point exactly on an inner face goes
// to the cell above it and the largest float below the face to the cell below.
TEST(SifAssembly, APointOnACellFaceBelongsToTheUpperCell) {
  for (const float extent : {0.3f, 1.0f, 2.7f, 1e-3f, 123.4f, 7e5f}) {
    for (const int32_t n : {3, 5, 7, 10, 48, 1000}) {
      for (int32_t i = 1; i < n; ++i) {
        const float face = extent * float(i) / float(n);
        ASSERT_EQ(sif_axis_cell(face, 0.0f, extent, n), i) << extent << " " << n << " " << i;
        ASSERT_EQ(sif_axis_cell(std::nextafter(face, 0.0f), 0.0f, extent, n), i - 1)
            << extent << " " << n << " " << i;
      }
      EXPECT_EQ(sif_axis_cell(extent, 0.0f, extent, n), n - 1);
      EXPECT_EQ(sif_axis_cell(0.0f, 0.0f, extent, n), 0);
    }
  }
}

TEST(SifAssembly, AnAxisThatFloatsCannotSplitBinsNothing) {
  const float fmax = std::numeric_limits<float>::max();
  EXPECT_EQ(sif_axis_cell(0.0f, -fmax, fmax, 4), -1);  // the extent overflows to infinity
  EXPECT_EQ(sif_axis_cell(0.0f, 0.0f, 1e-39f, 4), -1);  // a subnormal extent
  EXPECT_EQ(sif_axis_cell(fmax, -fmax, 0.0f, 4), -1);   // position - lo overflows
  EXPECT_EQ(sif_axis_cell(0.5f, 0.0f, 1.0f, 0), -1);
  // The margin is relative to the extent: 2^-20 of it on either side.
  EXPECT_EQ(sif_axis_cell(-0.9e-6f * 4, 0.0f, 4.0f, 2), 0);
  EXPECT_EQ(sif_axis_cell(-1.1e-6f * 4, 0.0f, 4.0f, 2), -1);
  EXPECT_EQ(sif_axis_cell(4.0f + 0.9e-6f * 4, 0.0f, 4.0f, 2), 1);
  EXPECT_EQ(sif_axis_cell(4.0f + 1.1e-6f * 4, 0.0f, 4.0f, 2), -1);
}
