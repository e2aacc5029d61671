// Turbid domains on the CPU scene: the request schema, the build, extension and
// inspection entries, and the commit-failure hook.
#include <optional>
#include <stdexcept>

#include "embree/scene_manager.h"
#include "module/bind_common.h"
#include "module/bind_request.h"
#include "turbid/domain.h"
#include "vulkan/scene_manager.h"

namespace vesk::module {

using vesk::embree::EmbreeSceneManager;
namespace tb = vesk::turbid;

namespace {

py::dict as_dict(const py::handle& h, const std::string& what) {
  if (!py::isinstance<py::dict>(h)) throw py::type_error(what + " must be a dict");
  return py::reinterpret_borrow<py::dict>(h);
}

py::list as_list(const py::dict& d, const char* key) {
  if (!d.contains(key)) throw py::key_error(std::string("request is missing the key '") + key + "'");
  const py::object o = d[key];
  if (!py::isinstance<py::list>(o) && !py::isinstance<py::tuple>(o))
    throw py::type_error(std::string("request['") + key + "'] must be a list");
  return py::list(o);
}

// An [n, cols] array of T, or `message` as a ValueError.
template <class T>
std::vector<T> rows(const py::dict& d, const char* key, py::ssize_t cols, const char* message) {
  py::array_t<T, py::array::c_style | py::array::forcecast> a;
  if constexpr (std::is_integral_v<T>)
    a = get_int_array<T>(d, key, "an integer array");
  else
    a = get<py::array_t<T, py::array::c_style | py::array::forcecast>>(d, key, "a float array");
  if (a.ndim() != 2 || a.shape(1) != cols) throw py::value_error(message);
  return std::vector<T>(a.data(), a.data() + a.size());
}

std::vector<float3> as_float3(const std::vector<float>& v) {
  std::vector<float3> out(v.size() / 3);
  for (size_t i = 0; i < out.size(); ++i) out[i] = {v[3 * i], v[3 * i + 1], v[3 * i + 2]};
  return out;
}
std::vector<int3> as_int3(const std::vector<int32_t>& v) {
  std::vector<int3> out(v.size() / 3);
  for (size_t i = 0; i < out.size(); ++i) out[i] = {v[3 * i], v[3 * i + 1], v[3 * i + 2]};
  return out;
}

tb::TurbidSampleOwner owner_identity(const py::dict& d, const char* key) {
  tb::TurbidSampleOwner o;
  const py::object v = d.contains(key) ? py::object(d[key]) : py::none();
  if (v.is_none()) throw py::key_error(std::string("request is missing the key '") + key + "'");
  if (py::isinstance<py::int_>(v)) {
    o.words[0] = get<uint64_t>(d, key, "an int or up to three ints");
    return o;
  }
  const std::vector<uint64_t> words = get<std::vector<uint64_t>>(d, key, "an int or up to three ints");
  if (words.empty() || words.size() > 3)
    throw py::value_error(std::string("request['") + key + "'] must hold one to three ints");
  for (size_t i = 0; i < words.size(); ++i) o.words[i] = words[i];
  return o;
}

void read_xyz(const py::dict& d, const char* key, float* out) {
  const std::vector<float> v = get<std::vector<float>>(d, key, "three floats");
  if (v.size() != 3) throw py::value_error(std::string("request['") + key + "'] must hold three floats");
  std::copy(v.begin(), v.end(), out);
}

struct ParsedDomain {
  tb::TurbidSamplingDebugRequest request;
  std::optional<tb::TurbidRelationTable> relations;
};

tb::TurbidRelationTable parse_relations(const py::dict& d) {
  tb::TurbidRelationTable t;
  t.contract_revision = get_or<uint64_t>(d, "contract_revision", tb::TURBID_RELATION_CONTRACT_REVISION, "an int");
  t.relation_revision = get<uint64_t>(d, "relation_revision", "an int");
  const char* shapes = "Turbid scene relation geometry must have [n,3] shapes";
  t.vertices = as_float3(rows<float>(d, "vertices", 3, shapes));
  t.triangles = as_int3(rows<int32_t>(d, "triangles", 3, shapes));
  for (const py::handle h : as_list(d, "owners")) {
    const py::dict o = as_dict(h, "each relation owner");
    t.owners.push_back({get<uint64_t>(o, "owner_id", "an int"), get<uint64_t>(o, "medium_id", "an int"),
                        get<uint64_t>(o, "authoritative_part_id", "an int")});
  }
  for (const py::handle h : as_list(d, "parts")) {
    const py::dict o = as_dict(h, "each relation part");
    tb::TurbidRelationPart p;
    p.part_id = get<uint64_t>(o, "part_id", "an int");
    p.component_id = get<uint64_t>(o, "component_id", "an int");
    p.instance_id = get_or<int64_t>(o, "instance_id", -1, "an int");
    p.backend_instance_id = get_or<int64_t>(o, "backend_instance_id", p.instance_id, "an int");
    p.alias_medium_id = get_or<int64_t>(o, "alias_medium_id", -1, "an int");
    if (o.contains("shift")) read_xyz(o, "shift", p.shift);
    read_xyz(o, "bounds_min", p.bounds_min);
    read_xyz(o, "bounds_max", p.bounds_max);
    p.volume = get<double>(o, "volume", "a float");
    p.vertex_offset = get<uint64_t>(o, "vertex_offset", "an int");
    p.vertex_count = get<uint64_t>(o, "vertex_count", "an int");
    p.triangle_offset = get<uint64_t>(o, "triangle_offset", "an int");
    p.triangle_count = get<uint64_t>(o, "triangle_count", "an int");
    t.parts.push_back(p);
  }
  auto pairs = [&](const char* key) {
    std::vector<std::pair<uint64_t, uint64_t>> out;
    if (!d.contains(key)) return out;
    const std::vector<int64_t> v = rows<int64_t>(d, key, 2, "Turbid global overlaps must have [n,2] shape");
    for (size_t i = 0; i + 1 < v.size(); i += 2) out.push_back({uint64_t(v[i]), uint64_t(v[i + 1])});
    return out;
  };
  t.overlaps = pairs("overlaps");
  t.parent_media = pairs("parent_media");
  return t;
}

// The request schema: see the docstring of _build_turbid_domain_embree.
ParsedDomain parse_domain(const scene::SceneModel& scene, const py::dict& d) {
  ParsedDomain out;
  tb::TurbidSamplingDebugRequest& r = out.request;
  r.contract_revision = get_or<uint64_t>(d, "contract_revision", tb::TURBID_CONTRACT_REVISION, "an int");
  tb::TurbidSamplingConfig& c = r.config;
  c.quality = tb::parse_quality(get_or<std::string>(d, "quality", "standard", "a string"));
  const uint64_t budget = get_or<uint64_t>(d, "sample_budget", 0, "an int");
  if (budget > tb::TURBID_MAX_SAMPLE_BUDGET)
    throw py::value_error("Turbid accepted sample budget exceeds the native candidate/index limit");
  c.sample_budget = uint32_t(budget);
  c.seed = get_or<uint64_t>(d, "seed", 0, "an int");
  c.orientation_theta_bins = get_or<uint32_t>(d, "orientation_theta_bins", 4, "an int");
  c.orientation_phi_bins = get_or<uint32_t>(d, "orientation_phi_bins", 8, "an int");
  c.max_samples_per_leaf_cell = get_or<uint32_t>(d, "max_samples_per_leaf_cell", 64, "an int");
  const uint64_t limit = get_or<uint64_t>(d, "max_candidates", 0, "an int");
  if (limit > 0xffffffffULL)
    throw py::value_error("Turbid candidate limit exceeds uint32 candidate indexing");
  c.max_candidates = uint32_t(limit);

  r.component_triangle_offsets.push_back(0);
  r.component_vertex_offsets.push_back(0);
  std::vector<float3> v;
  std::vector<int3> t;
  for (const py::handle h : as_list(d, "owners")) {
    const py::dict o = as_dict(h, "each owner");
    tb::TurbidOwnerRequest q;
    q.owner = owner_identity(o, "owner_id");
    q.medium_id = get_or<uint64_t>(o, "medium_id", q.owner.words[0], "an int");
    q.leaf_area_density = get<float>(o, "leaf_area_density", "a float");
    q.leaf_length = get<float>(o, "leaf_length", "a float");
    q.leaf_angle_distribution = get_or<int32_t>(o, "leaf_angle_distribution", 0, "an int");
    q.closed_orientation = get_or<int32_t>(o, "closed_orientation", 1, "an int");
    q.sidedness = get_or<int32_t>(o, "sidedness", 1, "an int");
    if (o.contains("property_ids")) {
      const std::vector<uint64_t> ids = get<std::vector<uint64_t>>(o, "property_ids", "four ints");
      if (ids.size() != 4) throw py::value_error("property_ids must contain four stable identifiers");
      std::copy(ids.begin(), ids.end(), q.property_ids);
    }
    if (o.contains("bounds_min") || o.contains("bounds_max")) {
      read_xyz(o, "bounds_min", q.bounds_min);
      read_xyz(o, "bounds_max", q.bounds_max);
      q.has_bounds = true;
    }
    q.instance_id = get_or<int64_t>(o, "instance_id", -1, "an int");
    if (o.contains("vertices")) {
      const char* shape = "owner vertices and triangles must have shape (N, 3)";
      v = as_float3(rows<float>(o, "vertices", 3, shape));
      t = as_int3(rows<int32_t>(o, "triangles", 3, shape));
    } else if (q.instance_id >= 0) {
      if (q.instance_id > INT32_MAX) throw py::value_error("instance_id out of range");
      scene.instance_world_mesh(int32_t(q.instance_id), v, t);
    } else {
      throw py::key_error("each owner needs 'vertices' and 'triangles', or an 'instance_id'");
    }
    const int64_t base = int64_t(r.vertices.size());
    r.vertices.insert(r.vertices.end(), v.begin(), v.end());
    for (const int3& tri : t)
      r.triangles.push_back({int32_t(std::clamp<int64_t>(tri.x + base, INT32_MIN, INT32_MAX)),
                             int32_t(std::clamp<int64_t>(tri.y + base, INT32_MIN, INT32_MAX)),
                             int32_t(std::clamp<int64_t>(tri.z + base, INT32_MIN, INT32_MAX))});
    r.component_vertex_offsets.push_back(r.vertices.size());
    r.component_triangle_offsets.push_back(r.triangles.size());
    r.owners.push_back(q);
  }
  if (d.contains("relations")) out.relations = parse_relations(as_dict(d["relations"], "request['relations']"));
  return out;
}

py::dict domain_summary(const EmbreeSceneManager& scene, uint64_t id) {
  const auto& res = scene.turbid().storage.residents;
  const auto it = res.find(id);
  if (it == res.end()) throw std::runtime_error(tb::STALE_DOMAIN);
  const backend::TurbidDomainStorage::Resident& d = it->second;
  py::dict out;
  out["domain_id"] = d.domain_id;
  out["domain_key"] = d.domain_key;
  out["n_owners"] = d.owners.size();
  out["n_samples"] = d.samples.size();
  out["sample_budget"] = d.config.sample_budget;
  out["candidates_tested"] = d.candidates_tested;
  out["build_count"] = d.build_count;
  out["extension_count"] = d.extension_count;
  return out;
}

py::dict revisions_dict(const tb::TurbidDomainRevisions& r) {
  py::dict d;
  d["domain_revision"] = r.domain;
  d["workflow_revision"] = r.workflow;
  d["transport_revision"] = r.transport;
  d["geometry_revision"] = r.geometry;
  d["property_revision"] = r.property;
  d["illumination_revision"] = r.illumination;
  d["microclimate_revision"] = r.microclimate;
  d["sampling_revision"] = r.sampling;
  return d;
}

py::dict samples_dict(const tb::TurbidSamplingDebugResult& r) {
  const size_t n = r.samples.size();
  std::vector<uint64_t> ids(n), owners(3 * n), props(4 * n), owner_list(3 * r.owners.size());
  // Counts as int64, so that NumPy index arithmetic on them stays integral.
  std::vector<int64_t> offsets(r.sample_offsets.begin(), r.sample_offsets.end()),
      tested(r.candidates_tested.begin(), r.candidates_tested.end());
  std::vector<float> pos(3 * n), nrm(3 * n), area(n);
  for (size_t i = 0; i < n; ++i) {
    const tb::TurbidLeafAreaSample& s = r.samples[i];
    ids[i] = s.sample_id;
    area[i] = s.leaf_area;
    for (int a = 0; a < 3; ++a) {
      pos[3 * i + a] = s.position[a], nrm[3 * i + a] = s.normal[a];
      owners[3 * i + a] = s.owner.words[a];
    }
    for (int a = 0; a < 4; ++a) props[4 * i + a] = s.property_ids[a];
  }
  for (size_t k = 0; k < r.owners.size(); ++k)
    for (int a = 0; a < 3; ++a) owner_list[3 * k + a] = r.owners[k].words[a];
  const py::ssize_t N = py::ssize_t(n), K = py::ssize_t(r.owners.size());
  py::dict d;
  d["semantics"] = tb::TURBID_SAMPLE_SEMANTICS;
  d["sample_id"] = move_to_numpy(std::move(ids), {N});
  d["position"] = move_to_numpy(std::move(pos), {N, 3});
  d["normal"] = move_to_numpy(std::move(nrm), {N, 3});
  d["leaf_area"] = move_to_numpy(std::move(area), {N});
  d["owner"] = move_to_numpy(std::move(owners), {N, 3});
  d["property_ids"] = move_to_numpy(std::move(props), {N, 4});
  d["sample_offsets"] = move_to_numpy(std::move(offsets), {K + 1});
  d["candidates_tested"] = move_to_numpy(std::move(tested), {K});
  d["owners"] = move_to_numpy(std::move(owner_list), {K, 3});
  return d;
}

const char* SCHEMA_DOC =
    "request (dict): 'owners', a list with one dict per closed leaf volume: 'owner_id' (int,\n"
    "or up to three ints: the owner's stable identity, first word non-zero), 'medium_id'\n"
    "(int, default the owner id), 'leaf_area_density' m2 m-3, 'leaf_length' m,\n"
    "'leaf_angle_distribution' (0 spherical, 1 planophile, 2 erectophile, 3 plagiophile,\n"
    "4 extremophile, 5 uniform; default 0), 'closed_orientation' (+1 when the mesh\n"
    "winds outward, -1 inward; default +1), 'sidedness' (1 or 2, default 1), optional\n"
    "'property_ids' (four ints), optional 'bounds_min'/'bounds_max' (checked against the\n"
    "mesh), and the closed mesh: 'vertices' (N, 3) and 'triangles' (M, 3) in world space,\n"
    "or 'instance_id' of a scene instance whose mesh it is. Optional configuration:\n"
    "'quality' ('preview', 'standard', 'high': 512, 4096, 16384 samples per owner),\n"
    "'sample_budget' (0: the quality's), 'seed', 'orientation_theta_bins' (4),\n"
    "'orientation_phi_bins' (8), 'max_samples_per_leaf_cell' (64), 'max_candidates' (0:\n"
    "1024 per sample), 'contract_revision' (1). Optional 'relations': a scene-relation\n"
    "table ('relation_revision', 'owners' [{'owner_id', 'medium_id',\n"
    "'authoritative_part_id'}], 'parts' [{'part_id', 'component_id', 'instance_id',\n"
    "'backend_instance_id', 'alias_medium_id', 'shift', 'bounds_min', 'bounds_max',\n"
    "'volume', 'vertex_offset', 'vertex_count', 'triangle_offset', 'triangle_count'}],\n"
    "'vertices', 'triangles', 'overlaps' and 'parent_media' as [n, 2] medium pairs);\n"
    "without it, one is made with one authoritative part per owner.";

py::dict sampling_result(const tb::TurbidSamplingDebugResult& r, const char* backend,
                         const char* executor) {
  py::dict record;
  record["backend"] = backend;
  record["workflow"] = "_turbid_sampling_debug";
  record["executor"] = executor;
  record["native"] = true;
  py::dict out;
  out["payload"] = samples_dict(r);
  out["_execution"] = record;
  return out;
}

}  // namespace

void bind_turbid_vulkan(py::module_& m) {
  m.def(
      "_debug_turbid_samples_vulkan",
      [](const vulkan::VulkanSceneManager& scene, const py::dict& request,
         const std::string& quality, uint64_t seed, uint64_t sample_budget,
         uint64_t max_candidates) {
        py::dict copy(request);
        copy["quality"] = quality;
        copy["seed"] = seed;
        copy["sample_budget"] = sample_budget;
        copy["max_candidates"] = max_candidates;
        const ParsedDomain p = parse_domain(scene, copy);
        return sampling_result(scene.debug_turbid_samples(p.request), "vulkan",
                               "vulkan.slang.turbid_sampling");
      },
      py::arg("scene"), py::arg("request"), py::arg("quality"), py::arg("seed"),
      py::arg("sample_budget") = 0, py::arg("max_candidates") = 0,
      (std::string("_debug_turbid_samples_embree with the candidates filled on the Vulkan\n"
                   "device (turbid_sampling.spv: the same keys, Sobol words, scrambling,\n"
                   "inside test and leaf normals, in the same integer and float operations);\n"
                   "every candidate is verified on the host as for the CPU filler, so the\n"
                   "samples are the CPU's bit for bit.\n") +
       SCHEMA_DOC)
          .c_str());
}

void bind_turbid(py::module_& m) {
  m.def(
      "_debug_turbid_samples_embree",
      [](const EmbreeSceneManager& scene, const py::dict& request, const std::string& quality,
         uint64_t seed, uint64_t sample_budget, uint64_t max_candidates) {
        py::dict copy(request);
        copy["quality"] = quality;
        copy["seed"] = seed;
        copy["sample_budget"] = sample_budget;
        copy["max_candidates"] = max_candidates;
        const ParsedDomain p = parse_domain(scene, copy);
        return sampling_result(scene.debug_turbid_samples(p.request), "embree",
                               "embree.cpp.turbid_sampling");
      },
      py::arg("scene"), py::arg("request"), py::arg("quality"), py::arg("seed"),
      py::arg("sample_budget") = 0, py::arg("max_candidates") = 0,
      (std::string("Leaf-area samples of the request's owners by the CPU sampler, without\n"
                   "storing a domain: scrambled Sobol points inside each closed volume, leaf\n"
                   "normals by its leaf angle distribution, every accepted point re-checked.\n"
                   "quality, seed, sample_budget and max_candidates override the request's.\n") +
       SCHEMA_DOC +
       "\nReturns {'payload': {'semantics', 'sample_id' uint64 (tag << 32 | candidate),\n"
       "'position' (n, 3), 'normal' (n, 3), 'leaf_area' m2 (equal per owner; the owner's sum\n"
       "is density times volume), 'owner' (n, 3) uint64, 'property_ids' (n, 4),\n"
       "'sample_offsets', 'candidates_tested', 'owners'}, '_execution'}.")
          .c_str());

  m.attr("TURBID_MAX_SAMPLE_BUDGET") = tb::TURBID_MAX_SAMPLE_BUDGET;

  m.def(
      "_preflight_turbid_sampling_embree",
      [](const EmbreeSceneManager& scene, const py::dict& request) {
        const ParsedDomain p = parse_domain(scene, request);
        const tb::PreparedTurbidSamplingRequest q = tb::prepare_request(p.request);
        const tb::TurbidRelationTable table =
            p.relations ? *p.relations : tb::synthesize_relations(p.request, 1);
        tb::validate_relation_table(table);
        tb::validate_domain_against_relations(p.request, table);
        py::list owners;
        for (const tb::PreparedTurbidSamplingOwner& o : q.owners) {
          py::dict d;
          d["owner_id"] = o.request.owner.words[0];
          d["volume"] = o.volume;
          d["volume_error_bound"] = o.boundary.error_bound;
          d["target_leaf_area"] = o.target_leaf_area;
          d["sample_weight"] = o.sample_weight;
          d["scramble_key"] = o.scramble_key;
          d["owner_tag"] = o.owner_tag;
          d["n_triangles"] = o.triangles.size() / 3;
          d["n_shells"] = o.boundary.n_shells;
          owners.append(d);
        }
        py::dict out;
        out["owners"] = owners;
        out["sample_budget"] = q.config.sample_budget;
        out["max_candidates"] = q.config.max_candidates;
        out["batch_size"] = q.batch_size;
        return out;
      },
      py::arg("scene"), py::arg("request"),
      (std::string("Checks a domain request without sampling: every owner's closed boundary,\n"
                   "the configuration and the relation table. Returns per owner its volume m3\n"
                   "(with the error bound), target leaf area m2, sample weight, stream key and\n"
                   "tag; and the resolved budget, candidate limit and batch size.\n") +
       SCHEMA_DOC)
          .c_str());

  m.def(
      "_build_turbid_domain_embree",
      [](EmbreeSceneManager& scene, const py::dict& request) {
        const ParsedDomain p = parse_domain(scene, request);
        const std::vector<uint64_t> ids = scene.build_turbid_domains(
            {p.request}, {p.relations ? &*p.relations : nullptr}, {});
        return domain_summary(scene, ids.front());
      },
      py::arg("scene"), py::arg("request"),
      (std::string("Builds one Turbid domain and commits it: the owners' leaf-area samples\n"
                   "and their relation table. A failure leaves the scene's domains as they\n"
                   "were. Returns {'domain_id', 'domain_key', 'n_owners', 'n_samples',\n"
                   "'sample_budget', 'candidates_tested', 'build_count', 'extension_count'}.\n") +
       SCHEMA_DOC)
          .c_str());

  m.def(
      "_build_turbid_domains_embree",
      [](EmbreeSceneManager& scene, const py::dict& request) {
        std::vector<ParsedDomain> parsed;
        for (const py::handle h : as_list(request, "domains"))
          parsed.push_back(parse_domain(scene, as_dict(h, "each domain request")));
        std::vector<tb::TurbidSamplingDebugRequest> requests;
        std::vector<const tb::TurbidRelationTable*> tables;
        for (const ParsedDomain& p : parsed) {
          requests.push_back(p.request);
          tables.push_back(p.relations ? &*p.relations : nullptr);
        }
        std::vector<std::pair<uint64_t, uint64_t>> overlaps;
        if (request.contains("global_overlaps")) {
          const std::vector<int64_t> v =
              rows<int64_t>(request, "global_overlaps", 2, "Turbid global overlaps must have [n,2] shape");
          for (size_t i = 0; i + 1 < v.size(); i += 2) overlaps.push_back({uint64_t(v[i]), uint64_t(v[i + 1])});
        }
        py::list out;
        for (uint64_t id : scene.build_turbid_domains(requests, tables, overlaps))
          out.append(domain_summary(scene, id));
        return out;
      },
      py::arg("scene"), py::arg("request"),
      "Builds several Turbid domains in one commit. request: {'domains': [domain request,\n"
      "...], 'global_overlaps': optional [n, 2] pairs of media that may overlap across\n"
      "domains}; each domain request as for _build_turbid_domain_embree. All or none are\n"
      "committed. Returns one summary per domain.");

  m.def(
      "_extend_turbid_samples_embree",
      [](EmbreeSceneManager& scene, uint64_t domain_id, uint64_t sample_budget) {
        if (sample_budget > tb::TURBID_MAX_SAMPLE_BUDGET)
          throw py::value_error("Turbid accepted sample budget exceeds the native candidate/index limit");
        scene.extend_turbid_samples(domain_id, uint32_t(sample_budget));
        return domain_summary(scene, domain_id);
      },
      py::arg("scene"), py::arg("domain_id"), py::arg("sample_budget"),
      "Raises a domain's per-owner sample budget. The samples held stay, unchanged, as the\n"
      "first ones of each owner (the candidate sequence does not depend on the budget); only\n"
      "the equal sample weight follows the new budget. The domain and sampling revisions\n"
      "rise by one. Returns the domain summary.");

  m.def(
      "_debug_turbid_domain_samples_embree",
      [](const EmbreeSceneManager& scene, uint64_t domain_id) {
        const auto& res = scene.turbid().storage.residents;
        const auto it = res.find(domain_id);
        if (it == res.end()) throw std::runtime_error(tb::STALE_DOMAIN);
        tb::TurbidSamplingDebugResult r;
        r.samples = it->second.samples;
        r.sample_offsets = it->second.sample_offsets;
        r.owners = it->second.owners;
        r.candidates_tested = it->second.candidates_tested;
        return samples_dict(r);
      },
      py::arg("scene"), py::arg("domain_id"),
      "The accepted samples of a committed domain, as the payload of\n"
      "_debug_turbid_samples_embree.");

  m.def(
      "_debug_turbid_scene_relations_embree",
      [](const EmbreeSceneManager& scene) {
        const tb::TurbidRelationTable& t = scene.turbid().storage.relations;
        py::dict d;
        d["contract_revision"] = t.contract_revision;
        d["relation_revision"] = t.relation_revision;
        py::list owners, parts;
        for (const auto& o : t.owners) {
          py::dict x;
          x["owner_id"] = o.owner_id, x["medium_id"] = o.medium_id;
          x["authoritative_part_id"] = o.authoritative_part_id;
          owners.append(x);
        }
        for (const auto& p : t.parts) {
          py::dict x;
          x["part_id"] = p.part_id, x["component_id"] = p.component_id;
          x["instance_id"] = p.instance_id, x["backend_instance_id"] = p.backend_instance_id;
          x["alias_medium_id"] = p.alias_medium_id;
          x["shift"] = std::vector<float>(p.shift, p.shift + 3);
          x["bounds_min"] = std::vector<float>(p.bounds_min, p.bounds_min + 3);
          x["bounds_max"] = std::vector<float>(p.bounds_max, p.bounds_max + 3);
          x["volume"] = p.volume;
          x["vertex_offset"] = p.vertex_offset, x["vertex_count"] = p.vertex_count;
          x["triangle_offset"] = p.triangle_offset, x["triangle_count"] = p.triangle_count;
          parts.append(x);
        }
        d["owners"] = owners;
        d["parts"] = parts;
        d["overlaps"] = t.overlaps;
        d["parent_media"] = t.parent_media;
        d["n_vertices"] = t.vertices.size();
        d["n_triangles"] = t.triangles.size();
        return d;
      },
      py::arg("scene"),
      "The committed scene-relation table: owners with their authoritative parts, parts\n"
      "with bounds, volume and geometry ranges, overlaps and parent media.");

  m.def(
      "_debug_turbid_residency_embree",
      [](const EmbreeSceneManager& scene) {
        const tb::TurbidHolding& h = scene.turbid();
        py::dict domains;
        for (const auto& [id, d] : h.storage.residents) {
          py::dict x = domain_summary(scene, id);
          x["revisions"] = revisions_dict(d.revisions);
          domains[py::int_(id)] = x;
        }
        py::dict out;
        out["domains"] = domains;
        out["n_states"] = h.storage.states.size();
        out["n_fields"] = h.storage.fields.size();
        // The CPU manager uploads nothing; each commit allocates its new tables once.
        out["upload_count"] = 0;
        out["allocation_count"] = h.commit_count;
        out["armed_failure"] = h.armed_failure;
        return out;
      },
      py::arg("scene"),
      "What the scene holds of Turbid domains: per domain its summary and revisions, the\n"
      "derived states and fields, 'upload_count' (0 on the CPU), 'allocation_count' (one per\n"
      "commit) and the armed commit failure ('' when none).");

  m.def(
      "_turbid_domain_revisions_embree",
      [](const EmbreeSceneManager& scene, uint64_t domain_id) {
        const auto& res = scene.turbid().storage.residents;
        const auto it = res.find(domain_id);
        if (it == res.end()) throw std::runtime_error(tb::STALE_DOMAIN);
        py::dict d = revisions_dict(it->second.revisions);
        d["domain_id"] = domain_id;
        d["relation_revision"] = scene.turbid().storage.relations.relation_revision;
        d["contract_revision"] = tb::TURBID_CONTRACT_REVISION;
        return d;
      },
      py::arg("scene"), py::arg("domain_id"),
      "The current revisions of a committed domain, with the relation table's and the\n"
      "request contract's.");

  m.def(
      "_set_turbid_commit_failure_embree",
      [](EmbreeSceneManager& scene, const std::string& stage) {
        if (!stage.empty() && stage != "derived_prune_stage" && stage != "table_stage" &&
            stage != "table_replace" && stage != "removal")
          throw py::value_error("unknown Turbid commit stage: " + stage);
        scene.turbid().armed_failure = stage;
      },
      py::arg("scene"), py::arg("stage"),
      "Arms one failure of the next commit at 'derived_prune_stage', 'table_stage',\n"
      "'table_replace' or 'removal' ('' disarms): that commit raises RuntimeError and leaves\n"
      "everything as it was; the stage is disarmed as it fires.");

  m.def(
      "_test_turbid_domain_id_exhaustion",
      [] {
        tb::DomainIdSpace space(UINT64_MAX);
        space.issue();  // the last identifier there is
        py::dict out;
        for (const char* key : {"first_exhausted", "second_exhausted"}) {
          try {
            space.issue();
            out[key] = false;
          } catch (const std::overflow_error& e) {
            out[key] = std::string(e.what()) == "TurbidDomain identifier space is permanently exhausted";
          }
        }
        return out;
      },
      "Spends a domain identifier space and asks it twice more: both requests must fail as\n"
      "exhausted. Returns {'first_exhausted', 'second_exhausted'}.");
}

}  // namespace vesk::module
