#include "turbid/contract.h"

namespace vesk::turbid {

void check_state_token(const TurbidStateToken& t) {
  if (t.workflow_stage > STAGE_LAST) throw std::invalid_argument("reserved Turbid workflow stage");
  const std::pair<const char*, uint64_t> fields[] = {
      {"state token domain id", t.domain_id},     {"workflow revision", t.workflow_revision},
      {"domain revision", t.domain_revision},     {"geometry revision", t.geometry_revision},
      {"transport revision", t.transport_revision}, {"property revision", t.property_revision},
      {"illumination revision", t.illumination_revision},
      {"microclimate revision", t.microclimate_revision},
      {"sampling revision", t.sampling_revision}, {"state revision", t.state_revision}};
  for (const auto& [label, value] : fields)
    if (value == 0) throw std::invalid_argument(std::string(label) + " must be non-zero");
}

void check_domain_contract(uint64_t revision) {
  if (revision != TURBID_CONTRACT_REVISION)
    throw std::invalid_argument("incompatible Turbid contract revision");
}

void check_relation_contract(uint64_t revision) {
  if (revision != TURBID_RELATION_CONTRACT_REVISION)
    throw std::invalid_argument("incompatible Turbid scene relation contract revision");
}

void check_process_contract(uint64_t revision) {
  if (revision != TURBID_PROCESS_CONTRACT_REVISION)
    throw std::invalid_argument("unsupported Turbid process contract revision");
}

}  // namespace vesk::turbid
