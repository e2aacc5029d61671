#include <cmath>
#include <limits>
#include <stdexcept>
#include <vector>

#include "core/sif_field.h"
#include "physiology/sif_assembly.h"
#include "physiology/sif_finalization.h"
#include "test_util.h"

using namespace vesk::backend;
using vesk::sif_axis_cell;

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
  EXPECT_EQ(sif_axis_cell(0.0f, -fmax, fmax, 4), -1);   // the extent overflows to infinity
  EXPECT_EQ(sif_axis_cell(0.0f, 0.0f, 1e-39f, 4), -1);  // a subnormal extent
  EXPECT_EQ(sif_axis_cell(fmax, -fmax, 0.0f, 4), -1);   // position - lo overflows
  EXPECT_EQ(sif_axis_cell(0.5f, 0.0f, 1.0f, 0), -1);
  // The margin is relative to the extent: 2^-20 of it on either side.
  EXPECT_EQ(sif_axis_cell(-0.9e-6f * 4, 0.0f, 4.0f, 2), 0);
  EXPECT_EQ(sif_axis_cell(-1.1e-6f * 4, 0.0f, 4.0f, 2), -1);
  EXPECT_EQ(sif_axis_cell(4.0f + 0.9e-6f * 4, 0.0f, 4.0f, 2), 1);
  EXPECT_EQ(sif_axis_cell(4.0f + 1.1e-6f * 4, 0.0f, 4.0f, 2), -1);
}

// The kernel bins by shortcuts (no face division far from a face, cheap angles checked
// against the bin edges); near every face and edge they must give the rule's bins.
TEST(SifAssembly, ShortcutsBinLikeTheRuleRightAtEveryFaceAndEdge) {
  for (const auto& [theta_bins, phi_bins] :
       {std::pair{7, 12}, std::pair{2, 2}, std::pair{30, 72}}) {
    std::vector<float> positions, normals;
    // A box at the origin, so that a position on a face is that face exactly.
    const float lo[3] = {0.0f, 0.0f, 0.0f}, hi[3] = {2.7f, 0.3f, 123.4f};
    const int32_t dims[3] = {48, 7, 3};
    const double offsets[] = {-3e-6, -1e-6, -1e-7, 0.0, 1e-7, 1e-6, 3e-6, 1e-5, 0.3};
    auto add = [&](const float p[3], double theta, double phi, float flip) {
      positions.insert(positions.end(), p, p + 3);
      normals.push_back(flip * float(std::sin(theta) * std::cos(phi)));
      normals.push_back(flip * float(std::sin(theta) * std::sin(phi)));
      normals.push_back(flip * float(std::cos(theta)));
    };
    int32_t count = 0;
    for (int32_t i = 0; i <= theta_bins; ++i)
      for (int32_t j = 0; j <= phi_bins; j += 1 + phi_bins / 24)
        for (const double dt : offsets)
          for (const double dp : offsets) {
            // Positions walk over the faces of every axis, on them and just off them.
            float p[3];
            for (int a = 0; a < 3; ++a) {
              const int32_t face = count % (dims[a] + 1);
              const float on = hi[a] * float(face) / float(dims[a]);
              p[a] = count % 3 == 0 ? on : std::nextafter(on, count % 3 == 1 ? -1e9f : 1e9f);
            }
            add(p, 1.5707963267948966 * i / theta_bins + dt, 6.283185307179586 * j / phi_bins + dp,
                count % 5 == 0 ? -1.0f : 1.0f);
            ++count;
          }
    const size_t n = positions.size() / 3;
    std::vector<float> source(n, 1.0f);
    std::vector<int32_t> ids(n, 0), grid(dims, dims + 3);
    std::vector<float> bmin(lo, lo + 3), bmax(hi, hi + 3);
    SifSourceAssemblyRequestView v;
    v.n_instances = 1, v.n_samples = int32_t(n), v.n_bands = 1, v.cell_stride = 1008;
    v.theta_bins = theta_bins, v.phi_bins = phi_bins;
    v.positions = {positions.data(), positions.size()},
    v.normals = {normals.data(), normals.size()};
    v.instance_ids = {ids.data(), n}, v.grid_dims = {grid.data(), 3};
    v.source_band_major = {source.data(), n}, v.direct_source_band_major = {source.data(), n};
    v.bounds_min = {bmin.data(), 3}, v.bounds_max = {bmax.data(), 3};

    std::vector<uint32_t> expected(size_t(1008) * theta_bins * phi_bins, 0);
    for (size_t s = 0; s < n; ++s) {
      int64_t cell = 0;
      for (int a = 2; a >= 0; --a) {
        const int64_t c = sif_axis_cell(positions[3 * s + a], lo[a], hi[a], dims[a]);
        cell = c < 0 || cell < 0 ? -1 : cell * dims[a] + c;
      }
      const int64_t bin = vesk::sif_orientation_bin(
          {normals[3 * s], normals[3 * s + 1], normals[3 * s + 2]}, theta_bins, phi_bins);
      if (cell >= 0 && bin >= 0) ++expected[size_t(cell * theta_bins * phi_bins + bin)];
    }
    EXPECT_EQ(assemble_sif_source(v).joint_counts, expected) << theta_bins << " x " << phi_bins;
  }
}
