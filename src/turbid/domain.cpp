#include "turbid/domain.h"

#include <algorithm>
#include <cmath>
#include <limits>
#include <set>
#include <stdexcept>
#include <unordered_map>
#include <unordered_set>

#include "core/workers.h"

namespace vesk::turbid {
namespace {

[[noreturn]] void bad(const char* what) { throw std::invalid_argument(what); }
[[noreturn]] void no_fallback(const char* what) {
  throw std::runtime_error(std::string(what) + NO_FALLBACK);
}

bool finite3(const float3& v) {
  return std::isfinite(v.x) && std::isfinite(v.y) && std::isfinite(v.z);
}

// An owner's own vertices (re-indexed from 0) and triangles.
void owner_geometry(const TurbidSamplingDebugRequest& r, size_t k, std::vector<float3>& v,
                    std::vector<int3>& t) {
  const uint64_t v0 = r.component_vertex_offsets[k], v1 = r.component_vertex_offsets[k + 1];
  const uint64_t t0 = r.component_triangle_offsets[k], t1 = r.component_triangle_offsets[k + 1];
  v.assign(r.vertices.begin() + int64_t(v0), r.vertices.begin() + int64_t(v1));
  t.clear();
  for (uint64_t i = t0; i < t1; ++i) {
    const int3& g = r.triangles[i];
    for (int32_t idx : {g.x, g.y, g.z})
      if (idx < 0 || uint64_t(idx) < v0 || uint64_t(idx) >= v1)
        bad("Turbid owner triangle references another owner geometry");
    t.push_back({int32_t(g.x - int64_t(v0)), int32_t(g.y - int64_t(v0)), int32_t(g.z - int64_t(v0))});
  }
}

// Offsets of a partition: non-decreasing, starting at 0 and ending at `total`.
bool partitions(const std::vector<uint64_t>& o, uint64_t total) {
  if (o.empty() || o.front() != 0 || o.back() != total) return false;
  for (size_t i = 1; i < o.size(); ++i)
    if (o[i] < o[i - 1]) return false;
  return true;
}

}  // namespace

uint32_t default_sample_budget(uint8_t quality) {
  return quality == QUALITY_PREVIEW ? 512 : quality == QUALITY_HIGH ? 16384 : 4096;
}

uint8_t parse_quality(const std::string& text) {
  if (text == "preview") return QUALITY_PREVIEW;
  if (text == "standard") return QUALITY_STANDARD;
  if (text == "high") return QUALITY_HIGH;
  throw std::invalid_argument("unknown Turbid sampling quality: " + text);
}

PreparedTurbidSamplingRequest prepare_request(const TurbidSamplingDebugRequest& r) {
  check_domain_contract(r.contract_revision);
  PreparedTurbidSamplingRequest p;
  p.config = r.config;
  if (p.config.quality > QUALITY_HIGH) bad("unknown Turbid sampling quality: (code)");
  if (p.config.sample_budget == 0) p.config.sample_budget = default_sample_budget(p.config.quality);
  if (p.config.sample_budget == 0) bad("Turbid accepted sample budget must be positive");
  if (p.config.sample_budget > TURBID_MAX_SAMPLE_BUDGET)
    bad("Turbid accepted sample budget exceeds the native candidate/index limit");
  if (p.config.max_candidates == 0)
    p.config.max_candidates =
        uint32_t(std::min<uint64_t>(uint64_t(p.config.sample_budget) * 1024ULL, 4294967295ULL));
  if (p.config.max_candidates == 0) bad("Turbid candidate limit must be positive");
  if (p.config.orientation_theta_bins == 0 || p.config.orientation_phi_bins == 0)
    bad("Turbid orientation dimensions must be positive");
  if (uint64_t(p.config.orientation_theta_bins) * p.config.orientation_phi_bins > 2147483647ULL)
    bad("Turbid orientation exceeds native device indexing");
  if (p.config.max_samples_per_leaf_cell == 0)
    bad("Turbid maximum samples per leaf cell must be positive");
  p.batch_size = uint32_t(std::min<uint64_t>(4ULL * p.config.sample_budget, 4294967295ULL));

  // Geometry layout.
  const size_t n = r.owners.size();
  if (n == 0) bad("Turbid domain must contain at least one placed component");
  const bool any_owner = !r.component_part_offsets.empty() || !r.component_triangle_offsets.empty() ||
                         !r.component_vertex_offsets.empty();
  if (any_owner && (r.component_triangle_offsets.empty() || r.component_vertex_offsets.empty()))
    bad("Turbid per-owner geometry offsets must be supplied together");
  if (r.component_triangle_offsets.size() != n + 1 || r.component_vertex_offsets.size() != n + 1 ||
      !partitions(r.component_triangle_offsets, r.triangles.size()) ||
      !partitions(r.component_vertex_offsets, r.vertices.size()))
    bad("Turbid owner geometry is missing a closed boundary");
  const bool any_part = !r.part_triangle_offsets.empty() || !r.part_vertex_offsets.empty() ||
                        !r.component_part_offsets.empty();
  if (any_part) {
    if (r.part_triangle_offsets.empty() || r.part_vertex_offsets.empty() ||
        r.component_part_offsets.empty())
      bad("Turbid part geometry offsets must be supplied together");
    if (r.part_triangle_offsets.size() != r.part_vertex_offsets.size() ||
        r.component_part_offsets.size() != n + 1 ||
        r.component_part_offsets.back() + 1 != r.part_triangle_offsets.size())
      bad("Turbid part geometry offsets have inconsistent counts");
    for (size_t k = 0; k < n; ++k) {
      const uint64_t p0 = r.component_part_offsets[k], p1 = r.component_part_offsets[k + 1];
      if (p1 <= p0 || p1 >= r.part_triangle_offsets.size() ||
          r.part_triangle_offsets[p0] != r.component_triangle_offsets[k] ||
          r.part_triangle_offsets[p1] != r.component_triangle_offsets[k + 1] ||
          r.part_vertex_offsets[p0] != r.component_vertex_offsets[k] ||
          r.part_vertex_offsets[p1] != r.component_vertex_offsets[k + 1])
        bad("Turbid part ranges do not partition owner geometry");
      for (uint64_t q = p0; q < p1; ++q) {
        if (r.part_triangle_offsets[q + 1] < r.part_triangle_offsets[q] ||
            r.part_vertex_offsets[q + 1] < r.part_vertex_offsets[q])
          bad("Turbid part ranges do not partition owner geometry");
        for (uint64_t t = r.part_triangle_offsets[q]; t < r.part_triangle_offsets[q + 1]; ++t)
          for (int32_t idx : {r.triangles[t].x, r.triangles[t].y, r.triangles[t].z})
            if (idx < 0 || uint64_t(idx) < r.part_vertex_offsets[q] ||
                uint64_t(idx) >= r.part_vertex_offsets[q + 1])
              bad("Turbid part triangle references another geometry range");
      }
    }
  }

  std::unordered_map<uint32_t, size_t> tags, keys;
  std::vector<float3> v;
  std::vector<int3> t;
  for (size_t k = 0; k < n; ++k) {
    const TurbidOwnerRequest& o = r.owners[k];
    if (r.component_triangle_offsets[k + 1] == r.component_triangle_offsets[k])
      bad("Turbid owner geometry is missing a closed boundary");
    if (o.closed_orientation != 1 && o.closed_orientation != -1)
      bad("Turbid closed-boundary orientation must be -1 or +1");
    if (o.sidedness != 1 && o.sidedness != 2) bad("Turbid sidedness must be one or two");
    if (!(o.leaf_area_density > 0.0f) || !(o.leaf_length > 0.0f) ||
        !std::isfinite(o.leaf_area_density) || !std::isfinite(o.leaf_length))
      bad("Turbid leaf density and dimensions must be positive");
    if (o.leaf_angle_distribution < 0 || o.leaf_angle_distribution > 5)
      bad("Turbid leaf angle distribution must be a code in 0..5");
    owner_geometry(r, k, v, t);
    PreparedTurbidSamplingOwner po;
    po.request = o;
    po.boundary = validate_closed_triangle_boundary(v, t, int8_t(o.closed_orientation));
    float extent = std::numeric_limits<float>::max();
    for (int a = 0; a < 3; ++a) {
      const float e = po.boundary.bounds_max[a] - po.boundary.bounds_min[a];
      if (!(e > 0.0f)) bad("Turbid component bounds must have positive extent");
      extent = std::min(extent, e);
    }
    if (o.has_bounds)
      for (int a = 0; a < 3; ++a)
        if (o.bounds_min[a] != po.boundary.bounds_min[a] || o.bounds_max[a] != po.boundary.bounds_max[a])
          bad("Turbid component bounds do not match closed triangle boundary");
    // Leaves far smaller than the volume: otherwise no density describes it.
    if (!(o.leaf_length < extent)) bad("Turbid domain must remain a continuous statistical medium");
    po.triangles.reserve(3 * t.size());
    for (const int3& tri : t)
      for (int32_t idx : {tri.x, tri.y, tri.z})
        po.triangles.push_back({v[size_t(idx)].x, v[size_t(idx)].y, v[size_t(idx)].z, 0.0f});
    po.volume = po.boundary.volume;
    po.target_leaf_area = double(o.leaf_area_density) * po.volume;
    po.sample_weight = po.target_leaf_area / double(p.config.sample_budget);
    constexpr double FMAX = std::numeric_limits<float>::max();
    if (!(po.target_leaf_area > 0.0) || !(po.target_leaf_area <= FMAX) ||
        !(po.sample_weight >= double(std::numeric_limits<float>::min())) ||
        !(po.sample_weight <= FMAX))
      throw std::overflow_error(
          "Turbid target leaf area and sample weight must be finite, positive, and "
          "float-representable");
    po.target_leaf_area_f = float(po.target_leaf_area);
    po.sample_weight_f = float(po.sample_weight);
    po.scramble_key = scramble_key(p.config.seed, o.owner);
    po.owner_tag = owner_tag(o.owner);
    if (!tags.emplace(po.owner_tag, k).second)
      bad("Turbid stable owner tag collision; no ambiguous sample IDs were generated");
    if (!keys.emplace(po.scramble_key, k).second)
      bad("Turbid owner stream key collision; no correlated native sampling streams were launched");
    p.owners.push_back(std::move(po));
  }
  return p;
}

CandidateFiller cpu_candidate_filler() {
  return [](const PreparedTurbidSamplingOwner& o, uint32_t first,
            std::vector<TurbidSamplingCandidate>& batch) {
    SamplingOwnerGeometry g;
    g.scramble_key = o.scramble_key;
    g.leaf_angle_distribution = o.request.leaf_angle_distribution;
    g.closed_orientation = int8_t(o.request.closed_orientation);
    for (int a = 0; a < 3; ++a)
      g.bounds_min[a] = o.boundary.bounds_min[a], g.bounds_max[a] = o.boundary.bounds_max[a];
    g.triangles = o.triangles.data();
    g.n_triangles = o.triangles.size() / 3;
    fill_candidates(g, first, batch.data(), batch.size());
  };
}

namespace {

// What the host finds of one returned candidate; the first failure in candidate order
// ends the run with its message.
enum Verdict : uint8_t { REJECTED, ACCEPTED, BAD_INDEX, BAD_STATUS, NON_FINITE, DE_WIT, NOT_UNIT, OUTSIDE };

Verdict verify(const PreparedTurbidSamplingOwner& o, const TurbidSamplingCandidate& c,
               uint64_t expected_index) {
  if (c.candidate_index != expected_index) return BAD_INDEX;
  if (c.status > 2) return BAD_STATUS;
  for (float x : {c.position[0], c.position[1], c.position[2], c.normal[0], c.normal[1], c.normal[2]})
    if (!std::isfinite(x)) return NON_FINITE;
  if (c.status == 2) return DE_WIT;
  if (c.status != 1) return REJECTED;
  const float nn = c.normal[0] * c.normal[0] + c.normal[1] * c.normal[1] + c.normal[2] * c.normal[2];
  if (std::fabs(nn - 1.0f) > 0.0001f) return NOT_UNIT;
  if (!inside_closed_boundary({c.position[0], c.position[1], c.position[2]}, o.triangles.data(),
                              o.triangles.size() / 3, int8_t(o.request.closed_orientation)))
    return OUTSIDE;
  return ACCEPTED;
}

[[noreturn]] void refuse(Verdict v) {
  switch (v) {
    case BAD_INDEX: no_fallback("Turbid downloaded candidate index is not sequential/in range.");
    case BAD_STATUS: no_fallback("Turbid downloaded candidate status is outside the native ABI.");
    case NON_FINITE: no_fallback("Turbid downloaded candidate contains non-finite data.");
    case DE_WIT: no_fallback("Turbid de Wit LAD transform exhausted its checked attempts.");
    case NOT_UNIT: no_fallback("Turbid downloaded accepted candidate normal is not unit length.");
    default: no_fallback("Turbid downloaded accepted candidate is outside the closed boundary.");
  }
}

constexpr uint32_t VERIFY_CHUNK = 4096;

}  // namespace

TurbidSamplingDebugResult execute_turbid_sampling_debug(const PreparedTurbidSamplingRequest& p,
                                                        const CandidateFiller& filler) {
  TurbidSamplingDebugResult out;
  out.sample_offsets.push_back(0);
  std::vector<TurbidSamplingCandidate> batch;
  std::vector<uint8_t> verdicts;
  const int threads = resolve_thread_count(0);
  for (const PreparedTurbidSamplingOwner& o : p.owners) {
    const uint32_t limit = p.config.max_candidates, budget = p.config.sample_budget;
    uint64_t first = 0, accepted = 0, consumed = 0;
    while (true) {
      const uint32_t count = uint32_t(std::min<uint64_t>(p.batch_size, limit - first));
      batch.assign(count, TurbidSamplingCandidate{});
      filler(o, uint32_t(first), batch);
      if (batch.size() != count)
        no_fallback("Turbid downloaded candidate index is not sequential/in range.");
      // The host re-checks every candidate it takes, chunk by chunk in parallel, and reads
      // the verdicts in candidate order, stopping at the budget as a serial check would.
      verdicts.resize(std::min(count, VERIFY_CHUNK));
      for (uint32_t begin = 0; begin < count && accepted < budget; begin += VERIFY_CHUNK) {
        const int64_t n = int64_t(std::min(count - begin, VERIFY_CHUNK));
#pragma omp parallel for schedule(static) num_threads(threads) if (n > 64)
        for (int64_t i = 0; i < n; ++i)
          verdicts[size_t(i)] = verify(o, batch[begin + size_t(i)], first + begin + uint64_t(i));
        for (int64_t i = 0; i < n && accepted < budget; ++i) {
          const Verdict v = Verdict(verdicts[size_t(i)]);
          if (v == REJECTED) continue;
          if (v != ACCEPTED) refuse(v);
          const TurbidSamplingCandidate& c = batch[begin + size_t(i)];
          TurbidLeafAreaSample s;
          s.sample_id = (uint64_t(o.owner_tag) << 32) | c.candidate_index;
          std::copy(c.position, c.position + 3, s.position);
          std::copy(c.normal, c.normal + 3, s.normal);
          s.leaf_area = o.sample_weight_f;
          s.owner = o.request.owner;
          std::copy(o.request.property_ids, o.request.property_ids + 4, s.property_ids);
          out.samples.push_back(s);
          ++accepted;
        }
      }
      consumed = first + count;
      if (accepted >= budget) break;
      if (consumed >= limit)
        no_fallback("Turbid boundary acceptance was too low for the checked candidate limit.");
      first = consumed;
    }
    out.candidates_tested.push_back(consumed);
    out.sample_offsets.push_back(out.samples.size());
    out.owners.push_back(o.request.owner);
  }
  return out;
}

// ---- relations ---------------------------------------------------------------------------

TurbidRelationTable synthesize_relations(const TurbidSamplingDebugRequest& r,
                                         uint64_t relation_revision) {
  TurbidRelationTable t;
  t.relation_revision = relation_revision;
  t.vertices = r.vertices;
  t.triangles = r.triangles;
  std::set<uint64_t> ids;
  std::vector<float3> v;
  std::vector<int3> tri;
  for (size_t k = 0; k < r.owners.size(); ++k) {
    const TurbidOwnerRequest& o = r.owners[k];
    const uint64_t id = o.owner.words[0];
    if (id == 0 || id == UINT64_MAX) bad("Synthesized Turbid relation identifier is reserved");
    if (!ids.insert(id).second) bad("Synthesized Turbid relation identity collision");
    TurbidRelationPart part;
    part.part_id = id;
    part.component_id = id;
    part.instance_id = part.backend_instance_id = o.instance_id;
    part.vertex_offset = r.component_vertex_offsets[k];
    part.vertex_count = r.component_vertex_offsets[k + 1] - part.vertex_offset;
    part.triangle_offset = r.component_triangle_offsets[k];
    part.triangle_count = r.component_triangle_offsets[k + 1] - part.triangle_offset;
    owner_geometry(r, k, v, tri);
    ClosedBoundary b;
    try {
      b = validate_closed_triangle_boundary(v, tri, int8_t(o.closed_orientation));
    } catch (const std::invalid_argument&) {
      bad("Synthesized Turbid relation part is not a closed volume");
    }
    std::copy(b.bounds_min, b.bounds_min + 3, part.bounds_min);
    std::copy(b.bounds_max, b.bounds_max + 3, part.bounds_max);
    part.volume = b.volume;
    t.parts.push_back(part);
    t.owners.push_back({id, o.medium_id, id});
  }
  return t;
}

void validate_relation_table(const TurbidRelationTable& t) {
  check_relation_contract(t.contract_revision);
  if (t.relation_revision == 0) bad("Turbid scene relation revision must be non-zero");
  std::set<uint64_t> owner_ids, media;
  for (const TurbidRelationOwner& o : t.owners) {
    if (o.owner_id == 0 || o.owner_id == UINT64_MAX)
      bad("Turbid scene owner stable identifier is reserved");
    if (!owner_ids.insert(o.owner_id).second || !media.insert(o.medium_id).second)
      bad("duplicate Turbid scene owner or medium identifier");
  }
  std::unordered_map<uint64_t, const TurbidRelationPart*> parts;
  std::set<int64_t> backends;
  for (const TurbidRelationPart& p : t.parts) {
    if (p.part_id == 0 || !parts.emplace(p.part_id, &p).second)
      bad("invalid Turbid scene part ownership or identity");
    if (!owner_ids.count(p.component_id)) bad("Turbid relation table contains an unowned resident");
    if (p.backend_instance_id >= 0 && !backends.insert(p.backend_instance_id).second)
      bad("duplicate Turbid scene part backend instance identity");
    for (int a = 0; a < 3; ++a)
      if (!std::isfinite(p.shift[a]) || !std::isfinite(p.bounds_min[a]) ||
          !std::isfinite(p.bounds_max[a]) || p.bounds_max[a] < p.bounds_min[a])
        bad("invalid Turbid scene part bounds or shift");
    if (p.vertex_offset + p.vertex_count > t.vertices.size() ||
        p.triangle_offset + p.triangle_count > t.triangles.size() || p.triangle_count == 0 ||
        p.vertex_count == 0)
      bad("Turbid scene part geometry range is invalid");
    std::vector<float3> v(t.vertices.begin() + int64_t(p.vertex_offset),
                          t.vertices.begin() + int64_t(p.vertex_offset + p.vertex_count));
    for (const float3& x : v)
      if (!finite3(x)) bad("Turbid scene part vertex must be finite");
    std::vector<int3> tri;
    for (uint64_t i = p.triangle_offset; i < p.triangle_offset + p.triangle_count; ++i) {
      const int3& g = t.triangles[i];
      for (int32_t idx : {g.x, g.y, g.z})
        if (idx < 0 || uint64_t(idx) < p.vertex_offset ||
            uint64_t(idx) >= p.vertex_offset + p.vertex_count)
          bad("Turbid scene part triangle crosses a geometry range");
      tri.push_back({int32_t(g.x - int64_t(p.vertex_offset)), int32_t(g.y - int64_t(p.vertex_offset)),
                     int32_t(g.z - int64_t(p.vertex_offset))});
    }
    ClosedBoundary b;
    try {
      b = validate_closed_triangle_boundary(v, tri, 1);
    } catch (const std::invalid_argument& e) {
      const std::string m = e.what();
      if (m.find("degenerate triangle") != std::string::npos)
        bad("Turbid scene part contains a degenerate face");
      if (m.find("wrong orientation") != std::string::npos)
        bad("Turbid scene part volume must be positive");
      bad("Turbid scene part is not a consistently oriented closed surface");
    }
    if (!(p.volume > 0.0)) bad("Turbid scene part volume must be positive");
    for (int a = 0; a < 3; ++a)
      if (std::fabs(b.bounds_min[a] - p.bounds_min[a]) > 1e-5f * (1 + std::fabs(b.bounds_min[a])) ||
          std::fabs(b.bounds_max[a] - p.bounds_max[a]) > 1e-5f * (1 + std::fabs(b.bounds_max[a])))
        bad("Turbid scene part bounds do not match authoritative geometry");
    if (std::fabs(b.volume - p.volume) > 1e-6 * b.volume + b.error_bound)
      bad("Turbid scene part volume does not match authoritative geometry");
  }
  // Aliases: a shifted copy of a part of another medium, with the same extent.
  std::unordered_map<uint64_t, uint64_t> medium_of_owner;
  for (const TurbidRelationOwner& o : t.owners) medium_of_owner[o.owner_id] = o.medium_id;
  for (const TurbidRelationPart& p : t.parts) {
    if (p.alias_medium_id < 0) {
      if (p.shift[0] != 0.0f || p.shift[1] != 0.0f || p.shift[2] != 0.0f)
        bad("Turbid scene part alias/shift structure is inconsistent");
      continue;
    }
    const TurbidRelationPart* target = nullptr;
    for (const TurbidRelationPart& q : t.parts)
      if (&q != &p && q.alias_medium_id < 0 &&
          medium_of_owner[q.component_id] == uint64_t(p.alias_medium_id))
        target = &q;
    bool ok = target != nullptr && uint64_t(p.alias_medium_id) != medium_of_owner[p.component_id];
    for (int a = 0; ok && a < 3; ++a)
      ok = std::fabs(target->bounds_min[a] + p.shift[a] - p.bounds_min[a]) <=
               1e-5f * (1 + std::fabs(p.bounds_min[a])) &&
           std::fabs(target->bounds_max[a] + p.shift[a] - p.bounds_max[a]) <=
               1e-5f * (1 + std::fabs(p.bounds_max[a]));
    if (!ok) bad("Turbid scene part alias/shift structure is inconsistent");
  }
  for (const TurbidRelationOwner& o : t.owners) {
    auto it = parts.find(o.authoritative_part_id);
    if (o.authoritative_part_id == 0 || it == parts.end())
      bad("Turbid scene owner requires an authoritative part");
    if (it->second->component_id != o.owner_id || it->second->alias_medium_id >= 0)
      bad("Turbid relation owner has no authoritative part");
  }
  // Media: parents form no cycle; overlaps name two known, different media, once.
  std::unordered_map<uint64_t, uint64_t> parent;
  for (const auto& [child, par] : t.parent_media) {
    if (child == par) bad("Turbid medium relationship cannot reference itself");
    if (!media.count(child) || !media.count(par))
      bad("Turbid medium relationship references an unknown medium");
    parent[child] = par;
  }
  for (const auto& [child, par] : t.parent_media) {
    uint64_t m = child;
    for (size_t steps = 0; parent.count(m); ++steps) {
      m = parent[m];
      if (m == child || steps > parent.size()) bad("cyclic Turbid parent-medium relationship");
    }
  }
  std::set<std::pair<uint64_t, uint64_t>> seen;
  for (auto [a, b] : t.overlaps) {
    if (a == b) bad("Turbid overlap cannot reference the same medium");
    if (!media.count(a) || !media.count(b)) bad("Turbid overlap references an unknown medium");
    if (!seen.insert({std::min(a, b), std::max(a, b)}).second) bad("duplicate Turbid overlap edge");
  }
}

void validate_domain_against_relations(const TurbidSamplingDebugRequest& r,
                                       const TurbidRelationTable& t) {
  std::unordered_map<uint64_t, size_t> relation_owner;
  for (size_t i = 0; i < t.owners.size(); ++i) relation_owner[t.owners[i].owner_id] = i;
  std::set<uint64_t> covered;
  for (size_t k = 0; k < r.owners.size(); ++k) {
    const uint64_t id = r.owners[k].owner.words[0];
    if (!covered.insert(id).second) bad("Duplicate Turbid domain/relation owner coverage");
    auto it = relation_owner.find(id);
    if (it == relation_owner.end()) bad("Missing Turbid domain/relation owner coverage");
    const TurbidRelationOwner& o = t.owners[it->second];
    if (o.medium_id != r.owners[k].medium_id) bad("Turbid domain/relation owner coverage mismatch");
    const TurbidRelationPart* part = nullptr;
    for (const TurbidRelationPart& p : t.parts)
      if (p.part_id == o.authoritative_part_id) part = &p;
    const uint64_t v0 = r.component_vertex_offsets[k], v1 = r.component_vertex_offsets[k + 1];
    const uint64_t t0 = r.component_triangle_offsets[k], t1 = r.component_triangle_offsets[k + 1];
    if (!part || part->vertex_count != v1 - v0 || part->triangle_count != t1 - t0)
      bad("Turbid domain/relation geometry range mismatch");
    for (uint64_t i = 0; i < t1 - t0; ++i) {
      const int3& a = r.triangles[t0 + i];
      const int3& b = t.triangles[part->triangle_offset + i];
      if (a.x - int64_t(v0) != b.x - int64_t(part->vertex_offset) ||
          a.y - int64_t(v0) != b.y - int64_t(part->vertex_offset) ||
          a.z - int64_t(v0) != b.z - int64_t(part->vertex_offset))
        bad("Turbid domain/relation triangle mismatch");
    }
    for (uint64_t i = 0; i < v1 - v0; ++i) {
      const float3& a = r.vertices[v0 + i];
      const float3& b = t.vertices[part->vertex_offset + i];
      if (a.x != b.x || a.y != b.y || a.z != b.z) bad("Turbid domain/relation vertex mismatch");
    }
  }
  for (const TurbidRelationOwner& o : t.owners)
    if (!covered.count(o.owner_id) && std::any_of(r.owners.begin(), r.owners.end(), [&](const auto& x) {
          return x.medium_id == o.medium_id;
        }))
      bad("Turbid domain/relation owner coverage mismatch");
}

// ---- storage -----------------------------------------------------------------------------

void check_extension(const backend::TurbidDomainStorage::Resident& held,
                     const backend::TurbidDomainStorage::Resident& next) {
  if (held.owners.size() != next.owners.size() ||
      !std::equal(held.owners.begin(), held.owners.end(), next.owners.begin()))
    throw std::invalid_argument("Turbid owner set changed during extension");
  for (size_t k = 0; k < held.owners.size(); ++k)
    if (next.sample_offsets[k + 1] - next.sample_offsets[k] <
        held.sample_offsets[k + 1] - held.sample_offsets[k])
      throw std::invalid_argument("Turbid accepted prefix shrank");
  for (size_t k = 0; k < held.owners.size(); ++k)
    for (uint64_t i = 0; i < held.sample_offsets[k + 1] - held.sample_offsets[k]; ++i) {
      TurbidLeafAreaSample a = held.samples[held.sample_offsets[k] + i];
      TurbidLeafAreaSample b = next.samples[next.sample_offsets[k] + i];
      a.leaf_area = b.leaf_area = 0.0f;  // the weight follows the budget
      if (!(a == b)) no_fallback("Native Turbid extension changed an accepted sample prefix.");
    }
}

void commit_turbid_domains(backend::TurbidDomainStorage& held,
                           backend::TurbidDomainStorage&& incoming,
                           const std::vector<uint64_t>& domain_ids, std::string& armed,
                           const char* prefix) {
  std::unordered_set<uint64_t> ids;
  for (uint64_t id : domain_ids) {
    if (!incoming.residents.count(id)) throw std::runtime_error(STALE_DOMAIN);
    ids.insert(id);
  }
  // Derived results survive only while the domain they came from is unchanged.
  auto compatible = [&](const TurbidStateToken& s) {
    auto it = incoming.residents.find(s.domain_id);
    if (it == incoming.residents.end()) return false;
    if (!ids.count(s.domain_id)) return true;
    const TurbidDomainRevisions& r = it->second.revisions;
    return s.domain_revision == r.domain && s.sampling_revision == r.sampling &&
           s.geometry_revision == r.geometry;
  };
  std::vector<TurbidStateToken> states;
  std::vector<backend::TurbidFieldToken> fields;
  for (const TurbidStateToken& s : held.states)
    if (compatible(s)) states.push_back(s);
  for (const backend::TurbidFieldToken& f : held.fields)
    if (compatible(f.state)) fields.push_back(f);
  auto point = [&](const char* stage) {
    if (!armed.empty() && armed == stage) {
      armed.clear();
      throw std::runtime_error(std::string(prefix) + stage);
    }
  };
  point("derived_prune_stage");
  point("table_stage");
  point("table_replace");
  point("removal");
  // The arrays go with their tokens; nothing else is kept.
  std::map<uint64_t, std::shared_ptr<const TurbidStateRecord>> state_records;
  std::map<uint64_t, std::shared_ptr<const TurbidFieldRecord>> field_records;
  for (const TurbidStateToken& s : states)
    if (auto it = held.state_records.find(s.state_revision); it != held.state_records.end())
      state_records.insert(*it);
  for (const backend::TurbidFieldToken& f : fields)
    if (auto it = held.field_records.find(f.field_revision); it != held.field_records.end())
      field_records.insert(*it);
  incoming.states = std::move(states);
  incoming.fields = std::move(fields);
  incoming.state_records = std::move(state_records);
  incoming.field_records = std::move(field_records);
  std::swap(held, incoming);  // what was held is released with `incoming`
}

}  // namespace vesk::turbid
