#pragma once
// Microwave images of a scene: passive brightness temperature and active backscatter
// (sigma0), one primary ray per pixel sample, with response tables shared by every backend.

#include <cstddef>
#include <cstdint>
#include <vector>

#include "core/types.h"

namespace vesk::embree {
class EmbreeSceneManager;
}

namespace vesk::microwave {

// Microwave material types of the unified material list (soil rows first, then
// vegetation rows, then trunk rows).
constexpr int32_t MW_SOIL = 1;
constexpr int32_t MW_VEGETATION = 2;
constexpr int32_t MW_TRUNK = 3;

// Soil rows shorter than the evaluators' 12 positions are padded with zeros (RMS height
// 0 when only the 10 leading fields are given).
constexpr int32_t SOIL_FIELDS = 12;
constexpr int32_t TRUNK_FIELDS = 7;
// Vegetation columns read: 0 extinction coefficient kappa_e (1/m), 1 single-scattering
// albedo omega, 2 physical temperature (K). Later columns are carried, unread.
constexpr int32_t VEG_FIELDS = 3;
// Stride of the vegetation records the transport reads (kappa_e, omega, T, has_lut).
constexpr int32_t VEG_RECORD = 4;

// A Mueller table (cti, cts, dphi, 4, 4) with its sampling CDFs; values == nullptr means
// none (for a trunk: the Fresnel fallback). Bins are uniform in the propagation
// direction's z cosine over [-1, 1] (incident: cti, scattered: cts) and in the azimuth
// difference over [0, 2 pi). Each 4x4 block is the phase matrix per unit volume (1/(m sr))
// in the modified Stokes basis (I_v, I_h, U, V), so 4 pi M[1][1] is the HH backscattering
// cross-section per unit volume; for a trunk, per unit surface area (dimensionless).
// cos_cdf holds n_cti * n_cts values, azimuth_cdf n_cti * n_cts * n_dphi.
struct MuellerTableView {
  const float* values = nullptr;
  int32_t n_cti = 0, n_cts = 0, n_dphi = 0;
  const float* cos_cdf = nullptr;
  size_t cos_cdf_size = 0;
  const float* azimuth_cdf = nullptr;
  size_t azimuth_cdf_size = 0;
  // Trunk only: the specular reflection Mueller matrix per cosine (n_cos, 4, 4), cosine
  // bins uniform over [0, 1]; nullptr takes the reflectivity of the trunk table.
  const float* specular = nullptr;
  int32_t n_specular = 0;
};

struct MicrowaveRequest {
  float frequency = 0.0f;  // Hz
  const float* soil_params = nullptr;
  int32_t soil_count = 0, soil_columns = 0;
  const float* veg_params = nullptr;
  int32_t veg_count = 0, veg_columns = 0;
  const float* trunk_params = nullptr;  // trunk_count x 7
  int32_t trunk_count = 0;
  const int32_t* material_map = nullptr;
  size_t material_map_size = 0;
  std::vector<MuellerTableView> veg_luts;    // empty, or one per vegetation material
  std::vector<MuellerTableView> trunk_luts;  // empty, or one per trunk material
  int32_t n_channels = 2;
  bool active = false;
  bool include_atmosphere = false;
  float atm_tau = 0.0f;            // nadir optical depth
  float air_temperature = 290.0f;  // K
  int32_t max_depth = 4;           // passive: soil and trunk reflections followed
  int32_t response_table_size = 256;
  int32_t spp = 1;  // active: jittered samples per pixel
  int32_t threads = 0;
};

// Everything a transport program reads, flattened the same way for the CPU and the
// device. Cosine tables have `size` rows at c_i = i / (size - 1), interpolated linearly.
struct MicrowaveTables {
  int32_t size = 0;
  int32_t soil_count = 0, veg_count = 0, trunk_count = 0;
  std::vector<float> passive_soil;    // [soil][size][4] H, V brightness (K), H, V reflectivity
  std::vector<float> active_soil;     // [soil][size][4] sigma0 HH, HV, VH, VV
  std::vector<float> smooth_soil;     // [soil][size][2] Fresnel H, V reflectivity
  std::vector<float> trunk_response;  // [trunk][size][4] H, V brightness (K), H, V reflectivity
  std::vector<float> trunk_ground;    // [soil][trunk][size][2] double bounce H, V
  std::vector<float> vegetation;      // [veg][VEG_RECORD]
  // Per microwave material (soil, vegetation, trunk order): type, Mueller table offset
  // (floats, -1 none), n_cti, n_cts, n_dphi, CDF offsets (cos, azimuth), specular offset
  // (-1 none), n_specular. LUT_INFO_STRIDE ints each.
  std::vector<int32_t> lut_info;
  std::vector<float> mueller;      // every material's table, concatenated
  std::vector<float> cos_cdf;      // concatenated
  std::vector<float> azimuth_cdf;  // concatenated
  std::vector<float> specular;     // concatenated trunk specular tables
};
constexpr int32_t LUT_INFO_STRIDE = 9;

// Checks the request against the scene's sensor and material count (messages name the
// argument); whether the scene is built is each backend's own first check.
void validate_request(const MicrowaveRequest& q, const SensorData& sensor, size_t n_materials);
MicrowaveTables build_tables(const MicrowaveRequest& q);

// The image's rays as 4-float records (x, y, z, 0): passive, one through each pixel
// centre; active, spp jittered per pixel (PCG32 per pixel and sample). pixel[i] is ray i's
// pixel; pixels without a ray have none.
struct MicrowaveRays {
  std::vector<float> origins, directions;
  std::vector<uint32_t> pixel;
};
// A repeated scene as the transport walks it: a ray that leaves the tile [0, w] x [0, h]
// with nothing ahead, or whose vegetation volume reaches the wall, goes on through the
// opposite wall, at most num_repetitions times between two events. Camera rays that
// start outside the tile are moved into it first. z_lo, z_hi: the scene's heights.
struct MicrowaveTiles {
  int32_t num_repetitions = 0;
  float w = 0.0f, h = 0.0f, z_lo = 0.0f, z_hi = 0.0f;
  bool active() const { return num_repetitions > 0 && w > 0.0f && h > 0.0f; }
};
// A vegetation face this close to a tile wall is the wall's event: a canopy layer whose
// sides lie on the walls goes on into the next tile.
constexpr float MICROWAVE_WALL_TIE = 0.0005f;
MicrowaveRays primary_rays(const SensorData& sensor, const MicrowaveRequest& q,
                           const MicrowaveTiles& tiles);
// Writes a pixel's channels from its mean per-ray values: passive (T_H, T_V, -, -),
// active (HH, HV, VH, VV).
void write_channels(const MicrowaveRequest& q, const double v[4], float* out);
// The image from per-ray results, 4 floats a ray, averaged over each pixel's spp rays.
std::vector<float> image_from_rays(const SensorData& sensor, const MicrowaveRequest& q,
                                   const MicrowaveRays& rays, const std::vector<float>& results);

// [height][width][n_channels], row-major: kelvin (passive) or linear sigma0 (active).
std::vector<float> simulate_microwave(const embree::EmbreeSceneManager& scene,
                                      const MicrowaveRequest& q);

}  // namespace vesk::microwave
