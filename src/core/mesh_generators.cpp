#include "core/mesh_generators.h"

#include <cmath>
#include <stdexcept>
#include <unordered_map>

namespace vesk {
namespace {

constexpr int64_t MAX_GENERATED_TRIANGLES = int64_t(1) << 25;

void require_positive(float v, const char* what) {
  if (!(v > 0.0f) || !std::isfinite(v)) throw std::invalid_argument(std::string(what));
}

}  // namespace

backend::MeshGeometry make_ground_plane(float half_w, float half_h, int32_t material_id,
                                        float max_tri_edge) {
  require_positive(half_w, "make_ground_plane: half_w must be positive and finite");
  require_positive(half_h, "make_ground_plane: half_h must be positive and finite");
  require_positive(max_tri_edge, "make_ground_plane: max_tri_edge must be positive and finite");
  // Cells of side <= max_tri_edge / sqrt(2) keep the diagonal within max_tri_edge;
  // the 1e-6 slack keeps an exact fit from adding a cell for rounding alone.
  const double cell = double(max_tri_edge) / std::sqrt(2.0);
  const double fx = std::max(1.0, std::ceil(2.0 * half_w / cell - 1e-6));
  const double fy = std::max(1.0, std::ceil(2.0 * half_h / cell - 1e-6));
  if (2.0 * fx * fy > double(MAX_GENERATED_TRIANGLES))
    throw std::invalid_argument("make_ground_plane: max_tri_edge is too small for the plane size");
  const int64_t nx = int64_t(fx), ny = int64_t(fy);

  backend::MeshGeometry m;
  m.material_id = material_id;
  m.vertices.reserve(size_t((nx + 1) * (ny + 1)));
  for (int64_t j = 0; j <= ny; ++j) {
    for (int64_t i = 0; i <= nx; ++i) {
      // Edge rows take the exact half sizes so neighbouring planes meet without gaps.
      const float x = i == nx ? half_w : float(-double(half_w) + 2.0 * half_w * double(i) / nx);
      const float y = j == ny ? half_h : float(-double(half_h) + 2.0 * half_h * double(j) / ny);
      m.vertices.push_back({x, y, 0.0f});
    }
  }
  m.normals.assign(m.vertices.size(), float3{0.0f, 0.0f, 1.0f});
  m.indices.reserve(size_t(2 * nx * ny));
  const auto at = [nx](int64_t i, int64_t j) { return int32_t(j * (nx + 1) + i); };
  for (int64_t j = 0; j < ny; ++j) {
    for (int64_t i = 0; i < nx; ++i) {
      m.indices.push_back({at(i, j), at(i + 1, j), at(i + 1, j + 1)});
      m.indices.push_back({at(i, j), at(i + 1, j + 1), at(i, j + 1)});
    }
  }
  return m;
}

backend::MeshGeometry make_sphere(float radius, float3 center, int32_t subdivisions) {
  require_positive(radius, "make_sphere: radius must be positive and finite");
  if (!std::isfinite(center.x) || !std::isfinite(center.y) || !std::isfinite(center.z))
    throw std::invalid_argument("make_sphere: center must be finite");
  if (subdivisions < 0 || 20 * (int64_t(1) << (2 * std::min(subdivisions, 12))) >
                              MAX_GENERATED_TRIANGLES)
    throw std::invalid_argument("make_sphere: subdivisions must be between 0 and 10");

  // Unit icosahedron, counter-clockwise from outside.
  const float t = (1.0f + std::sqrt(5.0f)) / 2.0f;
  std::vector<float3> dirs = {{-1, t, 0}, {1, t, 0}, {-1, -t, 0}, {1, -t, 0},
                              {0, -1, t}, {0, 1, t}, {0, -1, -t}, {0, 1, -t},
                              {t, 0, -1}, {t, 0, 1}, {-t, 0, -1}, {-t, 0, 1}};
  for (auto& d : dirs) d = normalize(d);
  std::vector<int3> tris = {{0, 11, 5}, {0, 5, 1},  {0, 1, 7},   {0, 7, 10}, {0, 10, 11},
                            {1, 5, 9},  {5, 11, 4}, {11, 10, 2}, {10, 7, 6}, {7, 1, 8},
                            {3, 9, 4},  {3, 4, 2},  {3, 2, 6},   {3, 6, 8},  {3, 8, 9},
                            {4, 9, 5},  {2, 4, 11}, {6, 2, 10},  {8, 6, 7},  {9, 8, 1}};

  for (int32_t s = 0; s < subdivisions; ++s) {
    std::unordered_map<uint64_t, int32_t> midpoint;
    midpoint.reserve(tris.size() * 2);
    auto mid = [&](int32_t a, int32_t b) {
      const uint64_t key = (uint64_t(std::min(a, b)) << 32) | uint32_t(std::max(a, b));
      auto it = midpoint.find(key);
      if (it != midpoint.end()) return it->second;
      dirs.push_back(normalize(dirs[a] + dirs[b]));
      const int32_t id = int32_t(dirs.size() - 1);
      midpoint.emplace(key, id);
      return id;
    };
    std::vector<int3> next;
    next.reserve(tris.size() * 4);
    for (const int3& f : tris) {
      const int32_t ab = mid(f.x, f.y), bc = mid(f.y, f.z), ca = mid(f.z, f.x);
      next.push_back({f.x, ab, ca});
      next.push_back({f.y, bc, ab});
      next.push_back({f.z, ca, bc});
      next.push_back({ab, bc, ca});
    }
    tris.swap(next);
  }

  backend::MeshGeometry m;
  m.vertices.reserve(dirs.size());
  for (const float3& d : dirs) m.vertices.push_back(center + radius * d);
  m.normals = std::move(dirs);
  m.indices = std::move(tris);
  return m;
}

backend::MeshGeometry make_cylinder(float radius, float height, int32_t segments) {
  require_positive(radius, "make_cylinder: radius must be positive and finite");
  require_positive(height, "make_cylinder: height must be positive and finite");
  if (segments < 3 || int64_t(segments) * 4 > MAX_GENERATED_TRIANGLES)
    throw std::invalid_argument("make_cylinder: segments must be at least 3");

  backend::MeshGeometry m;
  const int32_t n = segments;
  const double two_pi = 6.283185307179586;
  // Side ring vertices: bottom i at 2i, top i at 2i + 1.
  for (int32_t i = 0; i < n; ++i) {
    const float c = float(std::cos(two_pi * i / n)), s = float(std::sin(two_pi * i / n));
    m.vertices.push_back({radius * c, radius * s, 0.0f});
    m.vertices.push_back({radius * c, radius * s, height});
    m.normals.push_back({c, s, 0.0f});
    m.normals.push_back({c, s, 0.0f});
  }
  for (int32_t i = 0; i < n; ++i) {
    const int32_t b0 = 2 * i, t0 = 2 * i + 1, b1 = 2 * ((i + 1) % n), t1 = b1 + 1;
    m.indices.push_back({b0, b1, t1});
    m.indices.push_back({b0, t1, t0});
  }
  // Caps: centre then ring, duplicated so that their normals stay flat.
  for (int cap = 0; cap < 2; ++cap) {
    const float z = cap == 0 ? 0.0f : height;
    const float3 nz{0.0f, 0.0f, cap == 0 ? -1.0f : 1.0f};
    const int32_t centre = int32_t(m.vertices.size());
    m.vertices.push_back({0.0f, 0.0f, z});
    m.normals.push_back(nz);
    for (int32_t i = 0; i < n; ++i) {
      const float3 ring = m.vertices[size_t(2 * i + cap)];
      m.vertices.push_back(ring);
      m.normals.push_back(nz);
    }
    for (int32_t i = 0; i < n; ++i) {
      const int32_t a = centre + 1 + i, b = centre + 1 + (i + 1) % n;
      if (cap == 0)
        m.indices.push_back({centre, b, a});
      else
        m.indices.push_back({centre, a, b});
    }
  }
  return m;
}

}  // namespace vesk
