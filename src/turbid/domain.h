#pragma once
// Turbid domains: closed leaf volumes (owners) turned into scientific leaf-area samples,
// the scene-relation table that says who owns which geometry, and the storage a scene
// manager holds and replaces only as a whole.

#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "core/types.h"
#include "turbid/boundary.h"
#include "turbid/contract.h"
#include "turbid/sampling_kernels.h"

namespace vesk::turbid {

// One closed leaf volume and its leaves.
struct TurbidOwnerRequest {
  TurbidSampleOwner owner;
  uint64_t medium_id = 0;
  uint64_t property_ids[4] = {0, 0, 0, 0};
  float leaf_area_density = 0.0f;  // m2 of leaf per m3
  float leaf_length = 0.0f;        // m
  int32_t leaf_angle_distribution = 0;
  int32_t closed_orientation = 1;
  int32_t sidedness = 1;
  int64_t instance_id = -1;  // the scene instance it stands for, -1 none
  bool has_bounds = false;   // bounds given by the caller, checked against the geometry
  float bounds_min[3] = {0, 0, 0}, bounds_max[3] = {0, 0, 0};
};

enum TurbidQuality : uint8_t { QUALITY_PREVIEW = 0, QUALITY_STANDARD = 1, QUALITY_HIGH = 2 };

struct TurbidSamplingConfig {
  uint8_t quality = QUALITY_STANDARD;
  uint32_t sample_budget = 0;  // 0: the quality's default
  uint64_t seed = 0;
  uint32_t orientation_theta_bins = 4, orientation_phi_bins = 8;
  uint32_t max_samples_per_leaf_cell = 64;
  uint32_t max_candidates = 0;  // 0: min(budget * 1024, 2^32 - 1)
};

// Owners with their geometry, flattened: owner k's triangles are
// triangles[component_triangle_offsets[k] .. [k + 1]) and index vertices in
// [component_vertex_offsets[k], [k + 1]). Parts (geometry instances of an owner) split
// an owner's ranges further; their offsets are optional, and one part per owner is meant
// without them.
struct TurbidSamplingDebugRequest {
  uint64_t contract_revision = TURBID_CONTRACT_REVISION;
  TurbidSamplingConfig config;
  std::vector<TurbidOwnerRequest> owners;
  std::vector<uint64_t> component_part_offsets, component_triangle_offsets,
      component_vertex_offsets;
  std::vector<uint64_t> part_triangle_offsets, part_vertex_offsets;
  std::vector<float3> vertices;  // world space
  std::vector<int3> triangles;
};

struct PreparedTurbidSamplingOwner {
  TurbidOwnerRequest request;
  std::vector<TurbidSamplingFloat4> triangles;  // three vertices per triangle
  ClosedBoundary boundary;
  double volume = 0.0, target_leaf_area = 0.0, sample_weight = 0.0;
  float target_leaf_area_f = 0.0f, sample_weight_f = 0.0f;
  uint32_t scramble_key = 0, owner_tag = 0;
};

struct PreparedTurbidSamplingRequest {
  TurbidSamplingConfig config;  // defaults resolved
  uint32_t batch_size = 0;
  std::vector<PreparedTurbidSamplingOwner> owners;
};

uint32_t default_sample_budget(uint8_t quality);
uint8_t parse_quality(const std::string& text);  // "preview", "standard", "high"

// Validates the configuration and every owner's boundary; computes volumes and weights.
PreparedTurbidSamplingRequest prepare_request(const TurbidSamplingDebugRequest& request);

struct TurbidSamplingDebugResult {
  std::vector<TurbidLeafAreaSample> samples;
  std::vector<uint64_t> sample_offsets;  // 0, then the running count per owner
  std::vector<TurbidSampleOwner> owners;
  std::vector<uint64_t> candidates_tested;
};

// Fills candidates first .. first + n - 1 of an owner (CPU loop or a device).
using CandidateFiller = std::function<void(const PreparedTurbidSamplingOwner& owner,
                                           uint32_t first,
                                           std::vector<TurbidSamplingCandidate>& batch)>;
// The driver: batches per owner until each budget is met, every returned candidate
// verified on the host. Any failure discards the whole result.
TurbidSamplingDebugResult execute_turbid_sampling_debug(const PreparedTurbidSamplingRequest& request,
                                                        const CandidateFiller& filler);
CandidateFiller cpu_candidate_filler();

// ---- the scene-relation table ----------------------------------------------------------

struct TurbidRelationOwner {
  uint64_t owner_id = 0;  // the owner's first identity word
  uint64_t medium_id = 0;
  uint64_t authoritative_part_id = 0;
};

struct TurbidRelationPart {
  uint64_t part_id = 0, component_id = 0;  // component: the owning owner_id
  int64_t instance_id = -1, backend_instance_id = -1;
  int64_t alias_medium_id = -1;  // a shifted copy of another medium's part, -1 none
  float shift[3] = {0, 0, 0};
  float bounds_min[3] = {0, 0, 0}, bounds_max[3] = {0, 0, 0};
  double volume = 0.0;
  uint64_t vertex_offset = 0, vertex_count = 0, triangle_offset = 0, triangle_count = 0;
};

struct TurbidRelationTable {
  uint64_t contract_revision = TURBID_RELATION_CONTRACT_REVISION;
  uint64_t relation_revision = 0;
  std::vector<TurbidRelationOwner> owners;
  std::vector<TurbidRelationPart> parts;
  std::vector<std::pair<uint64_t, uint64_t>> overlaps;      // medium pairs
  std::vector<std::pair<uint64_t, uint64_t>> parent_media;  // (child, parent)
  // The geometry the parts' ranges index.
  std::vector<float3> vertices;
  std::vector<int3> triangles;
};

// One owner, one authoritative part, from a domain request.
TurbidRelationTable synthesize_relations(const TurbidSamplingDebugRequest& request,
                                         uint64_t relation_revision);
// The table on its own, then against the domain it is to describe.
void validate_relation_table(const TurbidRelationTable& table);
void validate_domain_against_relations(const TurbidSamplingDebugRequest& request,
                                       const TurbidRelationTable& table);

// ---- storage -----------------------------------------------------------------------------

struct TurbidDomainRevisions {
  uint64_t domain = 1, workflow = 1, transport = 1, geometry = 1, property = 1;
  uint64_t illumination = 1, microclimate = 1, sampling = 1;
};

}  // namespace vesk::turbid

namespace vesk::turbid {
struct TurbidStateRecord;
struct TurbidFieldRecord;
}  // namespace vesk::turbid

namespace vesk::backend {

class TurbidDomainStorage {
 public:
  struct Resident {
    uint64_t domain_key = 0;  // the caller's name for the domain (its first owner's id)
    uint64_t domain_id = 0;
    turbid::TurbidDomainRevisions revisions;
    turbid::TurbidSamplingConfig config;
    std::vector<turbid::TurbidSampleOwner> owners;
    std::vector<turbid::TurbidLeafAreaSample> samples;
    std::vector<uint64_t> sample_offsets, candidates_tested;
    uint64_t build_count = 0, extension_count = 0;
    turbid::TurbidSamplingDebugRequest request;  // kept so the domain can be extended
  };
  std::map<uint64_t, Resident> residents;  // by domain_id
  turbid::TurbidRelationTable relations;
  std::vector<turbid::TurbidStateToken> states;
  std::vector<TurbidFieldToken> fields;
  // The arrays behind the tokens, immutable once made (so copies of the storage share
  // them): states by state_revision, fields by field_revision.
  std::map<uint64_t, std::shared_ptr<const turbid::TurbidStateRecord>> state_records;
  std::map<uint64_t, std::shared_ptr<const turbid::TurbidFieldRecord>> field_records;
};

}  // namespace vesk::backend

namespace vesk::turbid {

// Everything a scene manager holds of Turbid domains.
struct TurbidHolding {
  backend::TurbidDomainStorage storage;
  DomainIdSpace ids;
  std::string armed_failure;  // a commit stage that fails once
  uint64_t relation_revision = 0;
  uint64_t commit_count = 0;
  // Workflow bookkeeping: the last revisions issued to states and fields, and the
  // scene's light and optics as last seen, each with the revision it was given (a
  // change seen by a workflow call raises the revision; see turbid_workflow.h).
  uint64_t state_revision = 0, field_revision = 0;
  uint64_t illumination_revision = 1, transport_revision = 1;
  uint64_t illumination_fingerprint = 0, transport_fingerprint = 0;
  bool fingerprints_seen = false;
};

// The checks of an extension before its commit: same owners, no owner with fewer
// samples, and the held samples a prefix of the new ones (the weight may differ).
void check_extension(const backend::TurbidDomainStorage::Resident& held,
                     const backend::TurbidDomainStorage::Resident& extended);

// The commit as a transaction on `held`: every identifier must be in `incoming`; derived
// states and fields survive only while compatible; the armed failure point, if any of
// `stages` in order, fires once and leaves `held` untouched. `prefix` starts the injected
// failure's message ("Injected Embree Turbid commit failure: ").
void commit_turbid_domains(backend::TurbidDomainStorage& held, backend::TurbidDomainStorage&& incoming,
                           const std::vector<uint64_t>& domain_ids, std::string& armed_failure,
                           const char* prefix);

}  // namespace vesk::turbid
