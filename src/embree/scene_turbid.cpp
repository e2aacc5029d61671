// The CPU scene's Turbid domains: build, extend and commit, with the CPU candidate filler.
#include <cmath>
#include <stdexcept>
#include <set>
#include <unordered_set>

#include "embree/scene_manager.h"
#include "turbid/domain.h"

namespace vesk::embree {

namespace {
constexpr const char* INJECTED = "Injected Embree Turbid commit failure: ";

// Appends a table's owners, parts and geometry to `into`, its ranges moved along.
void merge_relations(turbid::TurbidRelationTable& into, const turbid::TurbidRelationTable& t) {
  const uint64_t v0 = into.vertices.size(), t0 = into.triangles.size();
  into.owners.insert(into.owners.end(), t.owners.begin(), t.owners.end());
  for (turbid::TurbidRelationPart p : t.parts) {
    p.vertex_offset += v0;
    p.triangle_offset += t0;
    into.parts.push_back(p);
  }
  into.vertices.insert(into.vertices.end(), t.vertices.begin(), t.vertices.end());
  for (int3 tri : t.triangles)
    into.triangles.push_back({int32_t(tri.x + int64_t(v0)), int32_t(tri.y + int64_t(v0)),
                              int32_t(tri.z + int64_t(v0))});
  into.overlaps.insert(into.overlaps.end(), t.overlaps.begin(), t.overlaps.end());
  into.parent_media.insert(into.parent_media.end(), t.parent_media.begin(), t.parent_media.end());
}

backend::TurbidDomainStorage::Resident make_resident(const turbid::TurbidSamplingDebugRequest& r,
                                                     const turbid::PreparedTurbidSamplingRequest& p,
                                                     turbid::TurbidSamplingDebugResult&& result,
                                                     uint64_t geometry_revision) {
  backend::TurbidDomainStorage::Resident d;
  d.domain_key = r.owners.front().owner.words[0];
  d.revisions.geometry = geometry_revision;
  d.config = p.config;
  d.owners = std::move(result.owners);
  d.samples = std::move(result.samples);
  d.sample_offsets = std::move(result.sample_offsets);
  d.candidates_tested = std::move(result.candidates_tested);
  d.build_count = 1;
  d.request = r;
  return d;
}

}  // namespace

turbid::TurbidHolding& EmbreeSceneManager::turbid() {
  if (!turbid_) turbid_ = std::make_unique<turbid::TurbidHolding>();
  return *turbid_;
}

const turbid::TurbidHolding& EmbreeSceneManager::turbid() const {
  static const turbid::TurbidHolding empty;
  return turbid_ ? *turbid_ : empty;
}

std::vector<uint64_t> EmbreeSceneManager::build_turbid_domains(
    const std::vector<turbid::TurbidSamplingDebugRequest>& requests,
    const std::vector<const turbid::TurbidRelationTable*>& relations,
    const std::vector<std::pair<uint64_t, uint64_t>>& global_overlaps) {
  require_idle_();
  turbid::TurbidHolding& h = turbid();
  if (requests.empty())
    throw std::invalid_argument("Turbid domain must contain at least one placed component");
  backend::TurbidDomainStorage incoming = h.storage;
  std::vector<backend::TurbidDomainStorage::Resident> built;
  const uint64_t relation_revision = turbid::next_revision(h.relation_revision, "Turbid scene relation revision overflow");
  for (size_t k = 0; k < requests.size(); ++k) {
    const turbid::TurbidSamplingDebugRequest& r = requests[k];
    const turbid::PreparedTurbidSamplingRequest p = turbid::prepare_request(r);
    turbid::TurbidRelationTable table = relations.size() > k && relations[k]
                                            ? *relations[k]
                                            : turbid::synthesize_relations(r, relation_revision);
    turbid::validate_relation_table(table);
    turbid::validate_domain_against_relations(r, table);
    merge_relations(incoming.relations, table);
    built.push_back(make_resident(r, p, turbid::execute_turbid_sampling_debug(p, turbid::cpu_candidate_filler()),
                                  std::max<uint64_t>(geometry_build_revision_, 1)));
  }
  incoming.relations.relation_revision = relation_revision;
  std::set<uint64_t> media;
  for (const auto& o : incoming.relations.owners) media.insert(o.medium_id);
  std::set<std::pair<uint64_t, uint64_t>> seen;
  for (const auto& o : incoming.relations.overlaps) seen.insert({std::min(o.first, o.second), std::max(o.first, o.second)});
  for (auto [a, b] : global_overlaps) {
    if (a == b || !media.count(a) || !media.count(b))
      throw std::invalid_argument("invalid Turbid global overlap relation");
    if (!seen.insert({std::min(a, b), std::max(a, b)}).second)
      throw std::invalid_argument("duplicate Turbid global overlap relation");
    incoming.relations.overlaps.push_back({a, b});
  }
  turbid::validate_relation_table(incoming.relations);
  std::vector<uint64_t> ids;
  for (auto& d : built) {
    d.domain_id = h.ids.issue();
    ids.push_back(d.domain_id);
    incoming.residents[d.domain_id] = std::move(d);
  }
  turbid::commit_turbid_domains(h.storage, std::move(incoming), ids, h.armed_failure, INJECTED);
  h.relation_revision = relation_revision;
  ++h.commit_count;
  return ids;
}

void EmbreeSceneManager::extend_turbid_samples(uint64_t domain_id, uint32_t sample_budget) {
  require_idle_();
  turbid::TurbidHolding& h = turbid();
  auto it = h.storage.residents.find(domain_id);
  if (it == h.storage.residents.end()) throw std::runtime_error(turbid::STALE_DOMAIN);
  const backend::TurbidDomainStorage::Resident& held = it->second;
  turbid::TurbidSamplingDebugRequest r = held.request;
  r.config.sample_budget = sample_budget;
  r.config.max_candidates = held.request.config.max_candidates;
  const turbid::PreparedTurbidSamplingRequest p = turbid::prepare_request(r);
  backend::TurbidDomainStorage::Resident next =
      make_resident(r, p, turbid::execute_turbid_sampling_debug(p, turbid::cpu_candidate_filler()),
                    held.revisions.geometry);
  turbid::check_extension(held, next);
  next.domain_id = held.domain_id;
  next.revisions = held.revisions;
  next.revisions.domain = turbid::next_domain_revision(held.revisions.domain);
  next.revisions.sampling = turbid::next_revision(held.revisions.sampling, "TurbidDomain revision overflow");
  next.build_count = held.build_count;
  next.extension_count = held.extension_count + 1;
  backend::TurbidDomainStorage incoming = h.storage;
  incoming.residents[domain_id] = std::move(next);
  turbid::commit_turbid_domains(h.storage, std::move(incoming), {domain_id}, h.armed_failure, INJECTED);
  ++h.commit_count;
}

turbid::TurbidSamplingDebugResult EmbreeSceneManager::debug_turbid_samples(
    const turbid::TurbidSamplingDebugRequest& request) const {
  return turbid::execute_turbid_sampling_debug(turbid::prepare_request(request),
                                               turbid::cpu_candidate_filler());
}

}  // namespace vesk::embree
