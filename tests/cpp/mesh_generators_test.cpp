#include <cmath>
#include <map>
#include <stdexcept>
#include <tuple>

#include "core/mesh_generators.h"
#include "test_util.h"

using namespace vesk;

namespace {

using Key = std::tuple<float, float, float>;
Key key(float3 p) { return {p.x, p.y, p.z}; }

// Closed and consistently wound: every directed edge, matched by vertex position,
// appears once and its reverse appears once.
void expect_closed_consistent(const backend::MeshGeometry& m, const char* what) {
  std::map<std::pair<Key, Key>, int> edges;
  for (const int3& t : m.indices) {
    const int32_t v[3] = {t.x, t.y, t.z};
    for (int k = 0; k < 3; ++k)
      ++edges[{key(m.vertices[size_t(v[k])]), key(m.vertices[size_t(v[(k + 1) % 3])])}];
  }
  for (const auto& [e, count] : edges) {
    ASSERT_EQ(count, 1) << what << ": directed edge used twice (inconsistent winding)";
    ASSERT_EQ(edges.count({e.second, e.first}), 1u) << what << ": open edge";
  }
}

// Divergence theorem: positive and equal to the enclosed volume when wound outward.
double signed_volume(const backend::MeshGeometry& m) {
  double v = 0;
  for (const int3& t : m.indices) {
    const float3 a = m.vertices[size_t(t.x)], b = m.vertices[size_t(t.y)],
                 c = m.vertices[size_t(t.z)];
    v += double(dot(a, cross(b, c))) / 6.0;
  }
  return v;
}

}  // namespace

TEST(MeshGenerators, SphereIsClosedOutwardAndRound) {
  const float3 c{1, -2, 3};
  for (int s = 0; s <= 3; ++s) {
    const auto m = make_sphere(2.0f, c, s);
    EXPECT_EQ(m.indices.size(), size_t(20 * (1 << (2 * s))));
    ASSERT_EQ(m.normals.size(), m.vertices.size());
    expect_closed_consistent(m, "sphere");
    for (size_t i = 0; i < m.vertices.size(); ++i) {
      EXPECT_NEAR(length(m.vertices[i] - c), 2.0f, 1e-5f);
      expect_near3(m.normals[i], (1.0f / 2.0f) * (m.vertices[i] - c), 1e-5f, "radial normal");
    }
    // Translating does not change volume; the inscribed polyhedron approaches 4/3 pi r^3.
    const double ball = 4.0 / 3.0 * M_PI * 8.0;
    const double v = signed_volume(m);
    EXPECT_GT(v, 0.0) << "outward winding";
    EXPECT_LT(v, ball);
    if (s == 3) {
      EXPECT_GT(v / ball, 0.98);
    }
  }
  EXPECT_THROW(make_sphere(-1.0f, c, 1), std::invalid_argument);
  EXPECT_THROW(make_sphere(1.0f, c, 11), std::invalid_argument);
}

TEST(MeshGenerators, CylinderIsClosedAndHasThePrismVolume) {
  const int n = 8;
  const auto m = make_cylinder(0.5f, 3.0f, n);
  expect_closed_consistent(m, "cylinder");
  const double prism = 0.5 * n * 0.25 * std::sin(2 * M_PI / n) * 3.0;
  EXPECT_NEAR(signed_volume(m), prism, 1e-5);
  // Each face's winding normal agrees with the vertex normals it carries.
  for (const int3& t : m.indices) {
    const float3 a = m.vertices[size_t(t.x)], b = m.vertices[size_t(t.y)],
                 c = m.vertices[size_t(t.z)];
    const float3 ng = cross(b - a, c - a);
    EXPECT_GT(dot(ng, m.normals[size_t(t.x)]), 0.0f);
  }
  EXPECT_THROW(make_cylinder(0.5f, 3.0f, 2), std::invalid_argument);
  EXPECT_THROW(make_cylinder(0.5f, 0.0f, 8), std::invalid_argument);
}

TEST(MeshGenerators, GroundPlaneEdgesAreBoundedAndFaceUp) {
  struct Case {
    float hw, hh, edge;
  } cases[] = {{50, 50, 100}, {10, 5, 3}, {1, 1, 0.5f}, {7.3f, 2.1f, 1.7f}};
  for (const Case& k : cases) {
    const auto m = make_ground_plane(k.hw, k.hh, 4, k.edge);
    EXPECT_EQ(m.material_id, 4);
    double area = 0;
    for (const int3& t : m.indices) {
      const float3 v[3] = {m.vertices[size_t(t.x)], m.vertices[size_t(t.y)],
                           m.vertices[size_t(t.z)]};
      for (int e = 0; e < 3; ++e)
        EXPECT_LE(length(v[(e + 1) % 3] - v[e]), k.edge * (1 + 1e-6f)) << "edge too long";
      const float3 n = cross(v[1] - v[0], v[2] - v[0]);
      EXPECT_GT(n.z, 0.0f) << "counter-clockwise seen from above";
      area += 0.5 * length(n);
    }
    EXPECT_NEAR(area, 4.0 * k.hw * k.hh, 1e-4 * k.hw * k.hh);
    float xmax = -1e30f, ymin = 1e30f;
    for (const float3& p : m.vertices) xmax = std::max(xmax, p.x), ymin = std::min(ymin, p.y);
    EXPECT_EQ(xmax, k.hw);
    EXPECT_EQ(ymin, -k.hh);
  }
  // Default plane: 100 x 100 in cells of side <= 100 / sqrt(2): 2 x 2 cells.
  EXPECT_EQ(make_ground_plane(50, 50, 0, 100).indices.size(), 8u);
  EXPECT_THROW(make_ground_plane(50, 50, 0, 0), std::invalid_argument);
  EXPECT_THROW(make_ground_plane(1e6f, 1e6f, 0, 1e-3f), std::invalid_argument);
}
