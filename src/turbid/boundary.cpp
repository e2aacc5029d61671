#include "turbid/boundary.h"

#include <algorithm>
#include <array>
#include <cmath>
#include <limits>
#include <numeric>
#include <stdexcept>
#include <unordered_map>

namespace vesk::turbid {
namespace {

[[noreturn]] void fail(const char* what) {
  throw std::invalid_argument(std::string("Turbid closed triangle boundary ") + what);
}

// The triangles in double, as the intersection tests read them.
struct D3 {
  double x = 0, y = 0, z = 0;
};
inline D3 operator-(D3 a, D3 b) { return {a.x - b.x, a.y - b.y, a.z - b.z}; }
inline D3 operator+(D3 a, D3 b) { return {a.x + b.x, a.y + b.y, a.z + b.z}; }
inline D3 operator*(double s, D3 a) { return {s * a.x, s * a.y, s * a.z}; }
inline double dot(D3 a, D3 b) { return a.x * b.x + a.y * b.y + a.z * b.z; }
inline D3 cross(D3 a, D3 b) {
  return {a.y * b.z - a.z * b.y, a.z * b.x - a.x * b.z, a.x * b.y - a.y * b.x};
}
inline D3 to_d(const float3& v) { return {v.x, v.y, v.z}; }

constexpr double BARY_LO = -2e-06, BARY_HI = 1.000002;

// Barycentric (b1, b2) of X in the plane of triangle (A, B, C) by the Gram system.
bool barycentric(const D3& A, const D3& B, const D3& C, const D3& X, double& b1, double& b2) {
  const D3 e1 = B - A, e2 = C - A, r = X - A;
  const double g11 = dot(e1, e1), g12 = dot(e1, e2), g22 = dot(e2, e2);
  const double det = g11 * g22 - g12 * g12;
  if (!(det > 0.0)) return false;
  const double r1 = dot(r, e1), r2 = dot(r, e2);
  b1 = (g22 * r1 - g12 * r2) / det;
  b2 = (g11 * r2 - g12 * r1) / det;
  return true;
}

bool inside_triangle(const D3& A, const D3& B, const D3& C, const D3& X, double lo, double hi) {
  double b1, b2;
  return barycentric(A, B, C, X, b1, b2) && b1 >= lo && b2 >= lo && b1 + b2 <= hi;
}

// Segments P0-P1 and Q0-Q1 in one plane (normal n) cross or touch within tol.
bool coplanar_segments_meet(const D3& P0, const D3& P1, const D3& Q0, const D3& Q1, const D3& n,
                            double tol) {
  const D3 d = P1 - P0, e = Q1 - Q0;
  const double denom = dot(cross(d, e), n);
  const double nn = std::sqrt(dot(n, n));
  const double ld = std::sqrt(dot(d, d)), le = std::sqrt(dot(e, e));
  if (std::fabs(denom) <= tol * nn * std::max(ld, le)) return false;  // parallel
  const D3 w = Q0 - P0;
  const double s = dot(cross(w, e), n) / denom, t = dot(cross(w, d), n) / denom;
  return s >= BARY_LO && s <= BARY_HI && t >= BARY_LO && t <= BARY_HI;
}

// Segment P0-P1 against triangle T (A, B, C): a crossing of the triangle's plane inside
// it. Segments lying in the plane are left to the coplanar test.
bool segment_crosses_triangle(const D3& P0, const D3& P1, const D3& A, const D3& B, const D3& C,
                              double tol) {
  const D3 n = cross(B - A, C - A);
  const double nl = std::sqrt(dot(n, n));
  if (!(nl > 0.0)) return false;
  const double d0 = dot(n, P0 - A) / nl, d1 = dot(n, P1 - A) / nl;
  if ((d0 > tol && d1 > tol) || (d0 < -tol && d1 < -tol)) return false;
  if (std::fabs(d0) <= tol && std::fabs(d1) <= tol) return false;
  const double t = d0 / (d0 - d1);
  return inside_triangle(A, B, C, P0 + t * (P1 - P0), BARY_LO, BARY_HI);
}

bool coplanar(const std::array<D3, 3>& t, const std::array<D3, 3>& u, double tol) {
  const D3 n = cross(t[1] - t[0], t[2] - t[0]);
  const double nl = std::sqrt(dot(n, n));
  for (const D3& p : u)
    if (std::fabs(dot(n, p - t[0])) > tol * nl) return false;
  return true;
}

// Two triangles with no vertex in common: any contact is an intersection.
bool triangles_intersect(const std::array<D3, 3>& t, const std::array<D3, 3>& u, double tol) {
  if (coplanar(t, u, tol)) {
    const D3 n = cross(t[1] - t[0], t[2] - t[0]);
    for (int i = 0; i < 3; ++i)
      for (int j = 0; j < 3; ++j)
        if (coplanar_segments_meet(t[i], t[(i + 1) % 3], u[j], u[(j + 1) % 3], n, tol)) return true;
    return inside_triangle(t[0], t[1], t[2], u[0], BARY_LO, BARY_HI) ||
           inside_triangle(u[0], u[1], u[2], t[0], BARY_LO, BARY_HI);
  }
  for (int i = 0; i < 3; ++i) {
    if (segment_crosses_triangle(t[i], t[(i + 1) % 3], u[0], u[1], u[2], tol)) return true;
    if (segment_crosses_triangle(u[i], u[(i + 1) % 3], t[0], t[1], t[2], tol)) return true;
  }
  return false;
}

// Two triangles sharing one vertex (`shared` shared vertices, rotated to come first) or
// one edge (the first two): whether they meet anywhere beyond that vertex or edge.
bool triangle_intersection_exceeds_shared_simplex(const std::array<D3, 3>& t,
                                                  const std::array<D3, 3>& u, int shared,
                                                  double tol) {
  const bool flat = coplanar(t, u, tol);
  if (shared == 2) {
    if (!flat) return false;  // two planes through one line meet only on it
    // Folded onto each other: the free vertices on the same side of the shared edge.
    const D3 e = t[1] - t[0];
    const D3 n = cross(e, t[2] - t[0]);
    return dot(cross(e, u[2] - u[0]), n) > 0.0;
  }
  // One shared vertex, t[0] == u[0]: the edges opposite it, and in the plane the edges
  // leaving it, just past the shared point.
  if (segment_crosses_triangle(t[1], t[2], u[0], u[1], u[2], tol) ||
      segment_crosses_triangle(u[1], u[2], t[0], t[1], t[2], tol))
    return true;
  if (!flat) return false;
  const D3 n = cross(t[1] - t[0], t[2] - t[0]);
  for (int i = 1; i < 3; ++i) {
    const D3 a = t[0] + 1e-3 * (t[i] - t[0]), b = u[0] + 1e-3 * (u[i] - u[0]);
    if (inside_triangle(u[0], u[1], u[2], a, 1e-9, 1.0 - 1e-9) ||
        inside_triangle(t[0], t[1], t[2], b, 1e-9, 1.0 - 1e-9))
      return true;
  }
  return coplanar_segments_meet(t[1], t[2], u[1], u[2], n, tol);
}

struct EdgeKey {
  uint32_t lo, hi;
  bool operator==(const EdgeKey& o) const { return lo == o.lo && hi == o.hi; }
};
struct EdgeKeyHash {
  size_t operator()(const EdgeKey& k) const { return (uint64_t(k.lo) << 32 | k.hi) * 0x9e3779b97f4a7c15ULL >> 7; }
};
struct EdgeUse {
  uint32_t count = 0, forward = 0;  // forward: uses going lo -> hi
  uint32_t tri[2] = {0, 0};
};

uint32_t find(std::vector<uint32_t>& parent, uint32_t x) {
  while (parent[x] != x) x = parent[x] = parent[parent[x]];
  return x;
}

// Solid angle (times 2, as atan2 sums) of a triangle seen from p: van Oosterom-Strackee.
double solid_angle(const D3& p, const D3& A, const D3& B, const D3& C) {
  const D3 a = A - p, b = B - p, c = C - p;
  const double la = std::sqrt(dot(a, a)), lb = std::sqrt(dot(b, b)), lc = std::sqrt(dot(c, c));
  return 2.0 * std::atan2(dot(a, cross(b, c)),
                          la * lb * lc + dot(a, b) * lc + dot(a, c) * lb + dot(b, c) * la);
}

}  // namespace

size_t interval_overlap_count(const std::vector<std::pair<double, double>>& iv) {
  size_t count = 0;
  for (size_t i = 0; i < iv.size(); ++i)
    for (size_t j = i + 1; j < iv.size() && iv[j].first <= iv[i].second; ++j)
      if (__builtin_add_overflow(count, size_t(1), &count))
        throw std::overflow_error("Turbid closed triangle boundary candidate pair count overflows");
  return count;
}

ClosedBoundary validate_closed_triangle_boundary(const std::vector<float3>& vertices,
                                                 const std::vector<int3>& triangles,
                                                 int8_t closed_orientation,
                                                 double transform_factor) {
  if (vertices.empty() || triangles.empty()) fail("is missing geometry");
  for (const float3& v : vertices)
    if (!std::isfinite(v.x) || !std::isfinite(v.y) || !std::isfinite(v.z))
      fail("contains non-finite vertices");
  const int64_t nv = int64_t(vertices.size());
  for (const int3& t : triangles)
    for (int32_t k : {t.x, t.y, t.z})
      if (k < 0 || k >= nv) fail("has invalid indices");
  const size_t n = triangles.size();
  std::vector<std::array<D3, 3>> tri(n);
  for (size_t i = 0; i < n; ++i) {
    const int3& t = triangles[i];
    tri[i] = {to_d(vertices[size_t(t.x)]), to_d(vertices[size_t(t.y)]), to_d(vertices[size_t(t.z)])};
    const D3 c = cross(tri[i][1] - tri[i][0], tri[i][2] - tri[i][0]);
    if (!(dot(c, c) > 1e-20) || t.x == t.y || t.y == t.z || t.x == t.z)
      fail("contains a degenerate triangle");
  }

  // Edges: every undirected edge used by exactly two triangles, once each way.
  std::unordered_map<EdgeKey, EdgeUse, EdgeKeyHash> edges;
  edges.reserve(3 * n);
  for (size_t i = 0; i < n; ++i) {
    const uint32_t v[3] = {uint32_t(triangles[i].x), uint32_t(triangles[i].y),
                           uint32_t(triangles[i].z)};
    for (int k = 0; k < 3; ++k) {
      const uint32_t a = v[k], b = v[(k + 1) % 3];
      EdgeUse& e = edges[{std::min(a, b), std::max(a, b)}];
      if (e.count < 2) e.tri[e.count] = uint32_t(i);
      ++e.count;
      e.forward += a < b ? 1 : 0;
    }
  }
  bool open = false, non_manifold = false, flipped = false;
  for (const auto& [key, e] : edges) {
    open |= e.count == 1;
    non_manifold |= e.count > 2;
    flipped |= e.count == 2 && e.forward != 1;
  }
  if (open) fail("is open");
  if (non_manifold) fail("has a non-manifold edge");
  if (flipped) fail("has inconsistent orientation");

  // Vertices: the triangles around each one form a single fan.
  {
    std::vector<std::vector<uint32_t>> around(vertices.size());
    for (size_t i = 0; i < n; ++i)
      for (int32_t k : {triangles[i].x, triangles[i].y, triangles[i].z})
        around[size_t(k)].push_back(uint32_t(i));
    // Union within the fan of each vertex only: adjacency through edges at that vertex.
    std::vector<uint32_t> local(n);
    for (size_t v = 0; v < around.size(); ++v) {
      const auto& fan = around[v];
      if (fan.empty()) continue;
      for (uint32_t t : fan) local[t] = t;
      auto root = [&](uint32_t x) {
        while (local[x] != x) x = local[x] = local[local[x]];
        return x;
      };
      for (uint32_t t : fan) {
        const int32_t tv[3] = {triangles[t].x, triangles[t].y, triangles[t].z};
        for (int k = 0; k < 3; ++k) {
          const uint32_t a = uint32_t(tv[k]), b = uint32_t(tv[(k + 1) % 3]);
          if (a != v && b != v) continue;
          const EdgeUse& e = edges[{std::min(a, b), std::max(a, b)}];
          local[root(e.tri[0])] = root(e.tri[1]);
        }
      }
      const uint32_t r = root(fan[0]);
      for (uint32_t t : fan)
        if (root(t) != r) fail("has a bow-tie/non-manifold vertex");
    }
  }

  // Pairwise intersection: sweep along x over the triangles' intervals.
  D3 lo{1e300, 1e300, 1e300}, hi{-1e300, -1e300, -1e300};
  for (const auto& t : tri)
    for (const D3& p : t) {
      lo = {std::min(lo.x, p.x), std::min(lo.y, p.y), std::min(lo.z, p.z)};
      hi = {std::max(hi.x, p.x), std::max(hi.y, p.y), std::max(hi.z, p.z)};
    }
  const double extent = std::max({hi.x - lo.x, hi.y - lo.y, hi.z - lo.z});
  const double tol = extent * 1.4210854715202004e-14;
  {
    std::vector<uint32_t> order(n);
    std::iota(order.begin(), order.end(), 0u);
    auto bound = [&](uint32_t i, int axis, bool upper) {
      double r = upper ? -1e300 : 1e300;
      for (const D3& p : tri[i]) {
        const double c = axis == 0 ? p.x : axis == 1 ? p.y : p.z;
        r = upper ? std::max(r, c) : std::min(r, c);
      }
      return r;
    };
    std::sort(order.begin(), order.end(),
              [&](uint32_t a, uint32_t b) { return bound(a, 0, false) < bound(b, 0, false); });
    std::vector<std::pair<double, double>> iv(n);
    for (size_t k = 0; k < n; ++k)
      iv[k] = {bound(order[k], 0, false) - tol, bound(order[k], 0, true) + tol};
    interval_overlap_count(iv);
    for (size_t a = 0; a < n; ++a) {
      const uint32_t i = order[a];
      for (size_t b = a + 1; b < n && iv[b].first <= iv[a].second; ++b) {
        const uint32_t j = order[b];
        bool overlap = true;
        for (int axis = 1; axis < 3 && overlap; ++axis)
          overlap = bound(i, axis, false) - tol <= bound(j, axis, true) + tol &&
                    bound(j, axis, false) - tol <= bound(i, axis, true) + tol;
        if (!overlap) continue;
        const int32_t ti[3] = {triangles[i].x, triangles[i].y, triangles[i].z};
        const int32_t tj[3] = {triangles[j].x, triangles[j].y, triangles[j].z};
        int shared = 0, si[2] = {0, 0}, sj[2] = {0, 0};
        for (int p = 0; p < 3; ++p)
          for (int q = 0; q < 3; ++q)
            if (ti[p] == tj[q] && shared < 2) si[shared] = p, sj[shared] = q, ++shared;
        bool hit;
        if (shared == 0) {
          hit = triangles_intersect(tri[i], tri[j], tol);
        } else {
          // Rotate so that the shared vertices come first, in each triangle's own order.
          auto arrange = [&](const std::array<D3, 3>& t, const int* s) {
            std::array<D3, 3> out;
            int rest = 3 - s[0] - (shared == 2 ? s[1] : 0);
            if (shared == 2) out = {t[s[0]], t[s[1]], t[rest]};
            else out = {t[s[0]], t[(s[0] + 1) % 3], t[(s[0] + 2) % 3]};
            return out;
          };
          hit = triangle_intersection_exceeds_shared_simplex(arrange(tri[i], si), arrange(tri[j], sj),
                                                             shared, tol);
        }
        if (hit) fail("has an intersection or overlap beyond the shared adjacent simplex");
      }
    }
  }

  // Shells: triangles joined through edges; each one's orientation must agree with its
  // nesting: outer surfaces positive under the orientation, cavities negative, alternating.
  std::vector<uint32_t> parent(n);
  std::iota(parent.begin(), parent.end(), 0u);
  for (const auto& [key, e] : edges) parent[find(parent, e.tri[0])] = find(parent, e.tri[1]);
  std::vector<uint32_t> shell_of(n), roots;
  for (size_t i = 0; i < n; ++i) {
    const uint32_t r = find(parent, uint32_t(i));
    auto it = std::find(roots.begin(), roots.end(), r);
    shell_of[i] = uint32_t(it - roots.begin());
    if (it == roots.end()) roots.push_back(r);
  }
  const size_t shells = roots.size();
  auto signed_volume = [&](auto pick) {
    double sum = 0.0, c = 0.0;  // Kahan
    for (size_t i = 0; i < n; ++i) {
      if (!pick(i)) continue;
      const double v = dot(tri[i][0], cross(tri[i][1], tri[i][2]));
      const double y = v - c, t = sum + y;
      c = (t - sum) - y;
      sum = t;
    }
    return sum;
  };
  if (shells > 1) {
    for (size_t s = 0; s < shells; ++s) {
      const double vol = signed_volume([&](size_t i) { return shell_of[i] == s; });
      // Depth: how many other shells enclose a vertex of this one.
      size_t first = 0;
      while (shell_of[first] != s) ++first;
      const D3 p = tri[first][0];
      int depth = 0;
      for (size_t o = 0; o < shells; ++o) {
        if (o == s) continue;
        double w = 0.0;
        for (size_t i = 0; i < n; ++i)
          if (shell_of[i] == o) w += solid_angle(p, tri[i][0], tri[i][1], tri[i][2]);
        depth += std::fabs(w) > 2.0 * M_PI ? 1 : 0;
      }
      const double oriented = vol * double(closed_orientation);
      if ((depth % 2 == 0) != (oriented > 0.0))
        throw std::invalid_argument(
            "Turbid connected shell orientation does not match outer/cavity nesting semantics");
    }
  }

  ClosedBoundary out;
  out.n_shells = shells;
  const double sum = signed_volume([](size_t) { return true; });
  out.volume = sum * transform_factor * double(closed_orientation) / 6.0;
  const double g = (double(n) * 32.0 + 16.0) * 2.220446049250313e-16;
  if (g >= 1.0) fail("is degenerate or has wrong orientation");
  out.error_bound = std::fabs(transform_factor) * (g / (1.0 - g)) * extent * extent * extent / 6.0;
  if (!(out.volume > out.error_bound)) fail("is degenerate or has wrong orientation");
  out.bounds_min[0] = float(lo.x), out.bounds_min[1] = float(lo.y), out.bounds_min[2] = float(lo.z);
  out.bounds_max[0] = float(hi.x), out.bounds_max[1] = float(hi.y), out.bounds_max[2] = float(hi.z);
  return out;
}

}  // namespace vesk::turbid
