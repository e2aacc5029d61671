// Building the two-level Embree structure and tracing rays through it.
#include "embree/scene_manager.h"

#include <atomic>
#include <memory>
#include <mutex>
#include <cfloat>
#include <cmath>
#include <cstring>
#include <sstream>
#include <stdexcept>

#include "core/array_check.h"
#include "core/scene_checks.h"
#include "core/tile.h"
#include "embree/scene_handles.h"
#include "turbid/domain.h"  // complete for the owner of the Turbid holding

namespace vesk::embree {

#ifdef VESK_BENCH_COUNTERS
namespace rtc {
namespace {
std::atomic<uint64_t> finished_closest{0}, finished_occluded{0};
}
thread_local RayCounters ray_counters;
RayCounters::~RayCounters() {
  finished_closest += closest;
  finished_occluded += occluded;
}
void read_ray_counters(uint64_t& closest, uint64_t& occluded) {
  closest = finished_closest.load() + ray_counters.closest;
  occluded = finished_occluded.load() + ray_counters.occluded;
}
void reset_ray_counters() {
  finished_closest = 0;
  finished_occluded = 0;
  ray_counters = RayCounters{};
}

bool ray_recording = false;
namespace {
struct RayLog {
  std::vector<float> closest, occluded;
};
std::mutex ray_logs_mutex;
std::vector<std::unique_ptr<RayLog>> ray_logs;  // one per thread that recorded
thread_local RayLog* thread_ray_log = nullptr;
}  // namespace
void set_ray_recording(bool on) { ray_recording = on; }
void record_ray(bool occluded, const float* org3, const float* dir3) {
  if (!thread_ray_log) {
    std::lock_guard<std::mutex> lock(ray_logs_mutex);
    ray_logs.push_back(std::make_unique<RayLog>());
    thread_ray_log = ray_logs.back().get();
  }
  std::vector<float>& v = occluded ? thread_ray_log->occluded : thread_ray_log->closest;
  v.insert(v.end(), org3, org3 + 3);
  v.insert(v.end(), dir3, dir3 + 3);
}
void take_recorded_rays(std::vector<float>& closest, std::vector<float>& occluded) {
  std::lock_guard<std::mutex> lock(ray_logs_mutex);
  for (auto& log : ray_logs) {
    closest.insert(closest.end(), log->closest.begin(), log->closest.end());
    occluded.insert(occluded.end(), log->occluded.begin(), log->occluded.end());
    log->closest.clear();
    log->occluded.clear();
  }
}
}  // namespace rtc
#endif

namespace {

void on_embree_error(void* user, RTCError code, const char* text) {
  auto* last = static_cast<std::string*>(user);
  *last = std::string(rtc::error_text(code)) + (text ? std::string(": ") + text : std::string());
}

void check(RTCDevice device, const std::string& last_error, const char* step) {
  if (rtcGetDeviceError(device) != RTC_ERROR_NONE)
    throw std::runtime_error(std::string("Embree error during ") + step + ": " + last_error);
}

// Row-major 3x4 to Embree's column-major 4x4 (last row 0 0 0 1).
void to_column_major(const float* m, float out[16]) {
  const float cm[16] = {m[0], m[4], m[8],  0.0f, m[1], m[5], m[9],  0.0f,
                        m[2], m[6], m[10], 0.0f, m[3], m[7], m[11], 1.0f};
  std::memcpy(out, cm, sizeof(cm));
}

}  // namespace

std::string EmbreeHit::to_string() const {
  std::ostringstream s;
  s << "EmbreeHit(hit=" << hit << ", t=" << t << ", position=(" << position.x << ", "
    << position.y << ", " << position.z << "), instance_id=" << instance_id
    << ", primitive_id=" << primitive_id << ", material_id=" << material_id
    << ", back_face=" << back_face << ")";
  return s.str();
}

EmbreeSceneManager::EmbreeSceneManager() : rtc_(std::make_unique<Handles>()) {
  rtc_->device = rtcNewDevice(nullptr);
  if (!rtc_->device) throw std::runtime_error("Failed to create Embree device");
  rtcSetDeviceErrorFunction(rtc_->device, on_embree_error, &rtc_->last_error);
}

EmbreeSceneManager::~EmbreeSceneManager() {
  release_embree_scenes_();
  if (rtc_->device) rtcReleaseDevice(rtc_->device);
}

void EmbreeSceneManager::release_embree_scenes_() {
  for (RTCScene& s : rtc_->mesh_scenes) {
    if (s) rtcReleaseScene(s);
    s = nullptr;
  }
  if (rtc_->top) rtcReleaseScene(rtc_->top);
  rtc_->top = nullptr;
}

void EmbreeSceneManager::update_instance_transform(int32_t id, const float* transform) {
  SceneModel::update_instance_transform(id, transform);
  const scene::Instance& inst = instances_[size_t(id)];
  if (!structure_current_ || inst.geometry_id < 0 || !rtc_->top) return;
  RTCGeometry g = rtcGetGeometry(rtc_->top, unsigned(inst.geometry_id));
  if (!g) throw std::runtime_error("update_instance_transform: rtcGetGeometry returned null");
  float cm[16];
  to_column_major(inst.transform, cm);
  rtcSetGeometryTransform(g, 0, RTC_FORMAT_FLOAT4X4_COLUMN_MAJOR, cm);
  rtcCommitGeometry(g);
}

void EmbreeSceneManager::refit_ias() {
  if (!built_) throw std::runtime_error("refit_ias: scene not built. Call build() first.");
  require_idle_();
  const SceneBox box = checked_scene_box_();
  rtcCommitScene(rtc_->top);
  check(rtc_->device, rtc_->last_error, "refit_ias");
  store_aabb_(box);
  ++geometry_build_revision_;
}

void EmbreeSceneManager::build() {
  require_idle_();
  const SceneBox box = checked_scene_box_();
  build_scene();
  store_aabb_(box);
  ++geometry_build_revision_;
}

void EmbreeSceneManager::build_scene() {
  require_idle_();
  RTCDevice device = rtc_->device;
  built_ = structure_current_ = false;
  release_embree_scenes_();
  rtc_->top = rtcNewScene(device);
  rtcSetSceneFlags(rtc_->top, rtc::FILTER_SCENE_FLAG);
  instance_info_.clear();
  rtc_->mesh_scenes.assign(meshes_.size(), nullptr);

  for (size_t m = 0; m < meshes_.size(); ++m) {
    const scene::Mesh& mesh = meshes_[m];
    RTCScene scene = rtcNewScene(device);
    // Queries that pass over medium boundaries filter the hits of every mesh; other
    // queries set no filter and pay nothing for it.
    rtcSetSceneFlags(scene, rtc::FILTER_SCENE_FLAG);
    rtc_->mesh_scenes[m] = scene;
    RTCGeometry geom = rtcNewGeometry(device, RTC_GEOMETRY_TYPE_TRIANGLE);
    void* vb = rtcSetNewGeometryBuffer(geom, RTC_BUFFER_TYPE_VERTEX, 0, RTC_FORMAT_FLOAT3,
                                       sizeof(float3), mesh.vertices.size());
    void* ib = rtcSetNewGeometryBuffer(geom, RTC_BUFFER_TYPE_INDEX, 0, RTC_FORMAT_UINT3,
                                       sizeof(int3), mesh.indices.size());
    if (!vb || !ib) {
      rtcReleaseGeometry(geom);
      check(device, rtc_->last_error, "mesh buffer allocation");
      throw std::runtime_error("Embree error during mesh buffer allocation");
    }
    std::memcpy(vb, mesh.vertices.data(), mesh.vertices.size() * sizeof(float3));
    std::memcpy(ib, mesh.indices.data(), mesh.indices.size() * sizeof(int3));
    rtcCommitGeometry(geom);
    rtcAttachGeometry(scene, geom);
    rtcReleaseGeometry(geom);
    rtcCommitScene(scene);
  }
  check(device, rtc_->last_error, "mesh scene build");

  int32_t primitive_offset = 0;
  instance_info_.reserve(instances_.size());
  for (scene::Instance& inst : instances_) {
    const scene::Mesh& mesh = meshes_.at(size_t(inst.mesh_id));
    RTCGeometry geom = rtcNewGeometry(device, RTC_GEOMETRY_TYPE_INSTANCE);
    rtcSetGeometryInstancedScene(geom, rtc_->mesh_scenes[size_t(inst.mesh_id)]);
    float cm[16];
    to_column_major(inst.transform, cm);
    rtcSetGeometryTransform(geom, 0, RTC_FORMAT_FLOAT4X4_COLUMN_MAJOR, cm);
    rtcCommitGeometry(geom);
    inst.geometry_id = int32_t(rtcAttachGeometry(rtc_->top, geom));
    rtcReleaseGeometry(geom);
    instance_info_.push_back({inst.mesh_id, mesh.material_id, primitive_offset});
    primitive_offset += int32_t(mesh.indices.size());
  }
  rtcCommitScene(rtc_->top);
  check(device, rtc_->last_error, "scene build");
  built_ = structure_current_ = true;
}

void EmbreeSceneManager::build_reuse_gas() {
  require_idle_();
  if (!rtc_->top || !structure_current_)
    throw std::runtime_error(
        "build_reuse_gas: no acceleration structure of the current geometry to reuse. Call "
        "build() first.");
  built_ = true;
}

void EmbreeSceneManager::build_reuse_geometry() { build_reuse_gas(); }

EmbreeHit EmbreeSceneManager::trace_ray(const float3& origin, const float3& direction,
                                        float t_min, float t_max) const {
  return trace_ray_(origin, direction, t_min, t_max, -1.0f, false);
}

namespace {

// skip_media >= 0: medium boundaries closer than that are passed; < 0: every surface but
// a medium boundary is passed.
struct MediumSkip {
  const EmbreeSceneManager* scene;
  float within;
};

bool reject_by_medium(const void* user, unsigned instance, float t) {
  const auto* skip = static_cast<const MediumSkip*>(user);
  const auto& info = skip->scene->instance_info();
  const bool boundary =
      instance < info.size() && skip->scene->medium_of_material(info[instance].material_id) >= 0;
  return skip->within >= 0.0f ? boundary && t <= skip->within : !boundary;
}

}  // namespace

EmbreeHit EmbreeSceneManager::trace_ray_past_media(const float3& origin, const float3& direction,
                                                   float within, float t_max) const {
  return surface_first_(origin, direction, 0.0f,
                        trace_ray_(origin, direction, 0.0f, t_max, std::fmax(within, 0.0f), false));
}

EmbreeHit EmbreeSceneManager::trace_ray_surface_first(const float3& origin,
                                                      const float3& direction, float t_min,
                                                      float t_max) const {
  return surface_first_(origin, direction, t_min,
                        trace_ray_(origin, direction, t_min, t_max, -1.0f, false));
}

EmbreeHit EmbreeSceneManager::surface_first_(const float3& origin, const float3& direction,
                                             float t_min, const EmbreeHit& hit) const {
  if (!hit.hit || size_t(hit.instance_id) >= instance_info_.size() ||
      medium_of_material(instance_info_[size_t(hit.instance_id)].material_id) < 0)
    return hit;
  // Two coplanar triangles give their common distance with different roundings, so
  // Embree's order between them is arbitrary: the tie is settled here, by the same
  // relative margin as the device walk. Every boundary is passed (within = inf).
  const float reach = hit.t * (1.0f + 1e-6f) + 1e-7f;
  const EmbreeHit surface = trace_ray_(origin, direction, t_min, reach, INFINITY, false);
  return surface.hit ? surface : hit;
}

EmbreeHit EmbreeSceneManager::trace_media_boundary(const float3& origin, const float3& direction,
                                                   float t_min, float t_max) const {
  return trace_ray_(origin, direction, t_min, t_max, -1.0f, true);
}

EmbreeHit EmbreeSceneManager::trace_ray_(const float3& origin, const float3& direction,
                                         float t_min, float t_max, float skip_media,
                                         bool media_only) const {
  EmbreeHit h;
  RTCRayHit rh;
  rh.ray.org_x = origin.x;
  rh.ray.org_y = origin.y;
  rh.ray.org_z = origin.z;
  rh.ray.dir_x = direction.x;
  rh.ray.dir_y = direction.y;
  rh.ray.dir_z = direction.z;
  rh.ray.tnear = t_min;
  rh.ray.tfar = t_max;
  rh.ray.time = 0.0f;
  rh.ray.mask = 0xFFFFFFFFu;
  rh.ray.id = 0;
  rh.ray.flags = 0;
  rh.hit.geomID = RTC_INVALID_GEOMETRY_ID;
  rh.hit.primID = RTC_INVALID_GEOMETRY_ID;
  rh.hit.instID[0] = RTC_INVALID_GEOMETRY_ID;
  if (skip_media >= 0.0f || media_only) {
    const MediumSkip skip{this, media_only ? -1.0f : skip_media};
    rtc::FilteredQuery q;
    q.reject = reject_by_medium;
    q.user = &skip;
    rtc::intersect1_filtered(rtc_->top, rh, q);
  } else {
    rtc::intersect1(rtc_->top, rh);
  }

  if (rh.hit.geomID == RTC_INVALID_GEOMETRY_ID) {
    h.t = t_max;
    return h;
  }
  h.hit = true;
  h.t = rh.ray.tfar;
  h.position = origin + h.t * direction;
  const uint32_t inst_id = rh.hit.instID[0];
  const int32_t prim = int32_t(rh.hit.primID);
  h.local_primitive = prim;
  h.instance_id = int32_t(inst_id);
  const scene::Instance* inst = nullptr;
  const scene::Mesh* mesh = nullptr;
  if (inst_id < instance_info_.size()) {
    const InstanceInfo& info = instance_info_[inst_id];
    h.material_id = info.material_id;
    h.primitive_id = info.primitive_offset + prim;
    inst = &instances_[inst_id];
    mesh = &meshes_[size_t(info.mesh_id)];
  }

  // Embree reports Ng in instance space; the linear part M3 (not its inverse
  // transpose) carries it to the world, so non-uniform scales skew normals.
  float3 ng{rh.hit.Ng_x, rh.hit.Ng_y, rh.hit.Ng_z};
  if (inst) ng = transform_vector(inst->transform, ng);
  ng = normalize(ng);
  float3 ns = ng;
  if (mesh && !mesh->normals.empty() && prim >= 0 && size_t(prim) < mesh->indices.size()) {
    const int3& tri = mesh->indices[size_t(prim)];
    const float u = rh.hit.u, v = rh.hit.v;
    const float3 n = (1.0f - u - v) * mesh->normals[size_t(tri.x)] +
                     u * mesh->normals[size_t(tri.y)] + v * mesh->normals[size_t(tri.z)];
    ns = normalize(transform_vector(inst->transform, n));
  }
  h.back_face = dot(direction, ng) > 0.0f;
  if (h.back_face) ng = -ng;
  if (dot(ng, ns) < 0.0f) ns = -ns;
  h.geometric_normal = ng;
  h.shading_normal = ns;
  return h;
}

bool EmbreeSceneManager::trace_shadow(const float3& origin, const float3& direction,
                                      float t_max) const {
  RTCRay ray;
  ray.org_x = origin.x;
  ray.org_y = origin.y;
  ray.org_z = origin.z;
  ray.dir_x = direction.x;
  ray.dir_y = direction.y;
  ray.dir_z = direction.z;
  ray.tnear = 1e-4f;
  ray.tfar = t_max;
  ray.time = 0.0f;
  ray.mask = 0xFFFFFFFFu;
  ray.id = 0;
  ray.flags = 0;
  rtc::occluded1(rtc_->top, ray);
  return ray.tfar < 0.0f;
}

std::vector<EmbreeHit> EmbreeSceneManager::trace_closest(
    const std::vector<backend::Ray>& rays) const {
  if (!built_ || !rtc_->top)
    throw std::runtime_error("trace_closest: scene not built. Call build() first.");
  check_rays_(rays);
  const std::vector<int32_t> offsets = instance_primitive_offsets();
  std::vector<EmbreeHit> hits(rays.size());
  for (size_t i = 0; i < rays.size(); ++i) {
    const backend::Ray& r = rays[i];
    EmbreeHit h = trace_ray(r.origin, r.direction, r.t_min, r.t_max);
    if (!h.hit) {
      h.t = FLT_MAX;
    } else if (h.instance_id >= 0 && size_t(h.instance_id) < offsets.size()) {
      h.primitive_id = offsets[size_t(h.instance_id)] + h.local_primitive;
    }
    hits[i] = h;
  }
  return hits;
}

bool EmbreeSceneManager::shadowed_repetitive(float3 origin, const float3& d) const {
  constexpr float FAR = 1e16f;
  if (trace_shadow(origin, d, FAR)) return true;
  const Repetition& rep = repetition_;
  if (rep.num_repetitions < 1 || !(rep.scene_x_size > 0.0f) || !(rep.scene_y_size > 0.0f))
    return false;
  float remaining = FAR;
  for (int32_t step = 0; step < rep.num_repetitions; ++step) {
    if (beyond_heights(origin, d, min_height_, max_height_)) return false;
    float t;
    const int axis = tile_exit(rep.scene_x_size, rep.scene_y_size, origin, d, t);
    if (axis < 0) return false;
    cross_tile(rep.scene_x_size, rep.scene_y_size, axis, t, d, origin);
    remaining -= t;
    if (remaining <= 0.0f) return false;
    // trace_shadow starts SURFACE_T_MIN along the ray; from a wall nothing needs skipping,
    // so the query starts that far behind it and an occluder on the wall is met.
    if (trace_shadow(origin - SURFACE_T_MIN * d, d, FAR)) return true;
  }
  return false;
}

}  // namespace vesk::embree
