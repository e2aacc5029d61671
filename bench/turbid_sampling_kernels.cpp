// Leaf-area sampler kernels: candidates per second of the CPU filler on a 12-triangle cube
// (every candidate inside, so every one pays for its leaf normal) and on a 320-triangle
// icosphere (about half rejected, the inside test dominating), for the spherical and a de
// Wit distribution. The baseline in the same run is the scrambled point alone: five
// Owen-scrambled Sobol dimensions per candidate, no geometry.
// Usage: turbid_sampling_kernels [CANDIDATES] [THREADS]. Output: one JSON line per figure.
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <vector>

#include "core/mesh_generators.h"
#include "core/optical_media.h"
#include "turbid/sampling_kernels.h"

using namespace vesk;
using namespace vesk::turbid;

namespace {

double seconds_since(std::chrono::steady_clock::time_point t0) {
  return std::chrono::duration<double>(std::chrono::steady_clock::now() - t0).count();
}

void emit(const std::string& figure, double value, const char* unit, int threads) {
  std::printf(
      "{\"bench\": \"turbid_sampling_kernels\", \"figure\": \"%s\", \"value\": %.6g, "
      "\"unit\": \"%s\", \"threads\": %d}\n",
      figure.c_str(), value, unit, threads);
}

std::vector<TurbidSamplingFloat4> soup(const backend::MeshGeometry& m) {
  std::vector<TurbidSamplingFloat4> out;
  for (const int3& t : m.indices)
    for (int32_t i : {t.x, t.y, t.z}) {
      const float3 p = m.vertices[size_t(i)];
      out.push_back({p.x, p.y, p.z, 0.0f});
    }
  return out;
}

// Best of three runs over the same candidate range.
double rate(const SamplingOwnerGeometry& owner, std::vector<TurbidSamplingCandidate>& out) {
  double best = 1e300;
  for (int r = 0; r < 3; ++r) {
    const auto t0 = std::chrono::steady_clock::now();
    fill_candidates(owner, 0, out.data(), out.size());
    best = std::min(best, seconds_since(t0));
  }
  return double(out.size()) / best;
}

}  // namespace

int main(int argc, char** argv) {
  const size_t n = argc > 1 ? size_t(std::max(1L, std::atol(argv[1]))) : size_t(1) << 18;
  const int threads = argc > 2 ? std::max(1, std::atoi(argv[2])) : 1;
  setenv("VESK_NUM_THREADS", std::to_string(threads).c_str(), 1);

  uint32_t sink = 0;
  double best = 1e300;
  for (int r = 0; r < 3; ++r) {
    const auto t0 = std::chrono::steady_clock::now();
    for (uint32_t i = 0; i < n; ++i)
      for (int d : {0, 1, 2, 3, 5}) sink ^= owen_scramble(sobol_raw(i, d), 0x86ed6df0u, d);
    best = std::min(best, seconds_since(t0));
  }
  emit("scrambled_points_rate_1_thread", double(n) / best, "points/s", 1);

  std::vector<TurbidSamplingFloat4> box;
  for (int f = 0; f < 6; ++f) {
    // Two triangles per face of [0, 1]^3, counter-clockwise seen from outside.
    const int axis = f / 2, side = f % 2, u = (axis + 1) % 3, v = (axis + 2) % 3;
    float q[4][3];
    for (int k = 0; k < 4; ++k) {
      q[k][axis] = float(side);
      q[k][u] = float(k == 1 || k == 2);
      q[k][v] = float(k >= 2);
    }
    const int order[2][3] = {{0, 1, 2}, {0, 2, 3}};
    for (const auto& t : order)
      for (int k = 0; k < 3; ++k) {
        const int c = side ? t[k] : t[2 - k];
        box.push_back({q[c][0], q[c][1], q[c][2], 0.0f});
      }
  }
  const auto sphere = soup(make_sphere(1.0f, {0, 0, 0}, 2));

  std::vector<TurbidSamplingCandidate> out(n);
  struct Case {
    const char* name;
    const std::vector<TurbidSamplingFloat4>* tris;
    float lo, hi;
    int32_t lad;
  };
  const Case cases[] = {{"cube12_spherical", &box, 0.0f, 1.0f, LAD_SPHERICAL},
                        {"cube12_planophile", &box, 0.0f, 1.0f, LAD_PLANOPHILE},
                        {"icosphere320_spherical", &sphere, -1.0f, 1.0f, LAD_SPHERICAL},
                        {"icosphere320_planophile", &sphere, -1.0f, 1.0f, LAD_PLANOPHILE}};
  for (const Case& c : cases) {
    SamplingOwnerGeometry o;
    o.scramble_key = 0x86ed6df0u;
    o.leaf_angle_distribution = c.lad;
    for (int k = 0; k < 3; ++k) o.bounds_min[k] = c.lo, o.bounds_max[k] = c.hi;
    o.triangles = c.tris->data();
    o.n_triangles = c.tris->size() / 3;
    const double r = rate(o, out);
    size_t accepted = 0;
    for (const auto& cand : out) accepted += cand.status;
    std::fprintf(stderr, "%s: %zu of %zu accepted\n", c.name, accepted, out.size());
    emit(std::string(c.name) + "_rate", r, "candidates/s", threads);
  }
  return sink == 0x12345678u ? 3 : 0;  // keeps the baseline loop from being optimised out
}
