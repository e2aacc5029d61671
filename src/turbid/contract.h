#pragma once
// The Turbid pipeline's shared vocabulary: leaf-area samples, the tokens that name a
// domain's derived results by every revision they came from, revision arithmetic that
// refuses to wrap, and the identifier space of domains. An operation accepts a token only
// while all its revisions still match what the manager holds, and never falls back to
// recomputing or to another backend: its failures say so.

#include <cstdint>
#include <stdexcept>
#include <string>

#include "turbid/sampling_kernels.h"

namespace vesk::turbid {

constexpr uint32_t TURBID_MAX_SAMPLE_BUDGET = 4194303;  // 2^22 - 1 accepted samples per owner
constexpr uint64_t TURBID_CONTRACT_REVISION = 1;
constexpr uint64_t TURBID_RELATION_CONTRACT_REVISION = 1;
constexpr uint64_t TURBID_PROCESS_CONTRACT_REVISION = 1;
constexpr const char* TURBID_SAMPLE_SEMANTICS = "scientific_leaf_area_integration_point";

constexpr const char* NO_FALLBACK = " No fallback was performed.";
constexpr const char* STALE_DOMAIN =
    "Stale TurbidDomain handle belongs to another scene/domain. No fallback was performed.";
constexpr const char* STALE_STATE =
    "Stale TurbidState token belongs to another scene/domain or revision. No fallback was "
    "performed.";
constexpr const char* STALE_FIELD =
    "Stale TurbidField token belongs to another scene/domain/state. No fallback was performed.";

// One scientific leaf-area integration point of a domain.
struct TurbidLeafAreaSample {
  uint64_t sample_id = 0;  // owner tag << 32 | candidate index
  float position[3] = {0, 0, 0};
  float normal[3] = {0, 0, 1};
  float leaf_area = 0.0f;  // m2, equal for all samples of an owner
  TurbidSampleOwner owner;
  uint64_t property_ids[4] = {0, 0, 0, 0};
  bool operator==(const TurbidLeafAreaSample&) const = default;
};

// Workflow stages, in processing order; the numbers are part of the token contract and
// are the same on every backend. A state carries everything of the stages before it.
enum TurbidWorkflowStage : uint8_t {
  STAGE_DOMAIN = 0,      // samples only: no state is issued at it
  STAGE_RADIATION = 1,   // absorbed shortwave per sample and side, sunlit probability
  STAGE_PHYSIOLOGY = 2,  // sunlit and shaded leaves solved at given leaf temperatures
  STAGE_ENERGY = 3,      // leaf temperatures solved from the leaf energy balance
};
constexpr uint8_t STAGE_LAST = STAGE_ENERGY;
constexpr const char* STAGE_MISMATCH = "Turbid workflow stage mismatch";

struct TurbidStateToken {
  uint64_t token_id = 0;  // the state's own serial within its manager
  uint64_t domain_id = 0;
  uint8_t workflow_stage = 0;
  uint64_t workflow_revision = 0, domain_revision = 0, transport_revision = 0;
  uint64_t geometry_revision = 0, property_revision = 0, illumination_revision = 0;
  uint64_t microclimate_revision = 0, sampling_revision = 0;
  uint64_t state_revision = 0;
  bool operator==(const TurbidStateToken&) const = default;
};

}  // namespace vesk::turbid

namespace vesk::backend {

struct TurbidFieldToken {
  turbid::TurbidStateToken state;
  uint64_t field_revision = 0;
  bool operator==(const TurbidFieldToken&) const = default;
};

}  // namespace vesk::backend

namespace vesk::turbid {

// The next revision, refusing to wrap: `what` is the overflow message.
inline uint64_t next_revision(uint64_t r, const char* what) {
  if (r == UINT64_MAX) throw std::overflow_error(what);
  return r + 1;
}
inline uint64_t next_domain_revision(uint64_t r) {
  return next_revision(r, "TurbidDomain revision overflow");
}

// Domain identifiers: issued upward from 1, never reused; once the space is spent every
// further request fails the same way.
class DomainIdSpace {
 public:
  explicit DomainIdSpace(uint64_t next = 1) : next_(next) {}
  uint64_t issue() {
    if (next_ == 0) throw std::overflow_error("TurbidDomain identifier space is permanently exhausted");
    const uint64_t id = next_;
    next_ = id == UINT64_MAX ? 0 : id + 1;  // 0 marks the space as spent
    return id;
  }
  uint64_t peek() const { return next_; }

 private:
  uint64_t next_;
};

// A state token as a request carries it, checked field by field in the fixed order:
// the stage before any revision, then every revision non-zero.
void check_state_token(const TurbidStateToken& t);

// Contract revisions of requests.
void check_domain_contract(uint64_t revision);
void check_relation_contract(uint64_t revision);
void check_process_contract(uint64_t revision);

}  // namespace vesk::turbid
