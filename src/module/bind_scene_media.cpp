// The optical turbid media table and the two samplers the tracers use, exposed for
// checking, on the CPU and the Vulkan scene alike.
#include <stdexcept>
#include <string>

#include "core/array_check.h"
#include "embree/scene_manager.h"
#include "module/bind_common.h"
#include "vulkan/scene_manager.h"

namespace vesk::module {

using vesk::embree::EmbreeSceneManager;
using vesk::vulkan::VulkanSceneManager;

namespace {

const OpticalTurbidMediumData& medium_at(const scene::SceneModel& s, int64_t id) {
  if (id < 0 || size_t(id) >= s.optical_media().size())
    throw std::out_of_range("optical turbid medium " + std::to_string(id) + " is outside [0, " +
                            std::to_string(s.optical_media().size()) + ")");
  return s.optical_media()[size_t(id)];
}

// A direction the samplers can use: finite and not zero; they normalise nothing, and G
// reads only its z component, but a zero or NaN vector is always a caller's mistake.
float3 direction_of(const FloatArray& a, const char* name) {
  const float* d = a.data();
  check_finite(name, d, 3);
  if (d[0] == 0.0f && d[1] == 0.0f && d[2] == 0.0f)
    throw std::invalid_argument(std::string(name) + " must not be the zero vector");
  return {d[0], d[1], d[2]};
}

template <class Scene>
void bind_media_of(py::class_<Scene>& cls) {
  cls.def(
      "set_optical_turbid_media",
      [](Scene& s, const FloatArray& leaf_area_density,
         const IntArray& leaf_angle_types, const IntArray& orientations,
         const FloatArray& leaf_characteristic_lengths, const IntArray& material_medium_ids) {
        s.set_optical_turbid_media(to_vector(leaf_area_density), to_vector(leaf_angle_types),
                                   to_vector(orientations), to_vector(leaf_characteristic_lengths),
                                   to_vector(material_medium_ids));
      },
      py::arg("leaf_area_density"), py::arg("leaf_angle_types"), py::arg("orientations"),
      py::arg("leaf_characteristic_lengths"), py::arg("material_medium_ids"),
      "Replace the table of optical turbid media: volumes of leaves bounded by closed\n"
      "meshes whose material is listed in material_medium_ids. One entry per medium:\n"
      "leaf_area_density (m2 m-3, >= 0); leaf_angle_types 0 spherical, 1 planophile,\n"
      "2 erectophile, 3 plagiophile, 4 extremophile, 5 uniform; orientations 1 when the\n"
      "medium is inside the bounding mesh (outward-wound), -1 when outside;\n"
      "leaf_characteristic_lengths (m, the hot-spot correlation length, 0 for none).\n"
      "material_medium_ids: one int per material added so far, -1 for an ordinary surface,\n"
      "else the medium it bounds. A bounding surface does not scatter: rays enter or leave\n"
      "the medium there, and inside it collide with leaves that scatter with the material\n"
      "of the LAST material naming the medium. Every tracer follows the media. In a repeated\n"
      "scene, a medium that fills the tile (a leaf layer) should reach slightly past the\n"
      "tile walls (by a centimetre, say): faces lying exactly on a wall are ambiguous.");
  cls.def("num_optical_turbid_media",
          [](const Scene& s) { return s.optical_media().size(); });
  cls.def("material_medium_ids", &Scene::material_medium_ids,
          "The medium of each material (-1: ordinary), as given to set_optical_turbid_media.");
  cls.def(
      "optical_turbid_medium",
      [](const Scene& s, int64_t medium_id) {
        const OpticalTurbidMediumData& m = medium_at(s, medium_id);
        py::dict d;
        d["leaf_area_density"] = m.leaf_area_density;
        d["leaf_characteristic_length"] = m.leaf_characteristic_length;
        d["leaf_angle_type"] = m.leaf_angle_type;
        d["orientation"] = m.orientation;
        d["material_id"] = m.material_id;
        d["projection_g"] = std::vector<float>(m.projection_g, m.projection_g + G_TABLE_SIZE);
        return d;
      },
      py::arg("medium_id"),
      "One medium: 'leaf_area_density', 'leaf_characteristic_length', 'leaf_angle_type',\n"
      "'orientation', 'material_id' and 'projection_g' (G at view zenith 0..90 degrees).");
  cls.def(
      "sample_combined_free_path",
      [](const Scene& s, const IntArray& active_medium_ids,
         const FloatArray& direction, float distance_sample, float selection_sample) {
        if (active_medium_ids.ndim() != 1)
          throw std::runtime_error("active medium ids must be one-dimensional");
        if (active_medium_ids.size() > MAX_ACTIVE_MEDIA)
          throw std::runtime_error("At most 8 overlapping active turbid media are supported.");
        if (direction.size() != 3) throw std::runtime_error("direction must contain three values");
        const int32_t* ids = active_medium_ids.data();
        const int32_t n = int32_t(active_medium_ids.size());
        for (int32_t k = 0; k < n; ++k)
          if (ids[k] < 0 || size_t(ids[k]) >= s.optical_media().size())
            throw std::runtime_error("active medium ids contains an invalid id");
        const float3 d = direction_of(direction, "direction");
        check_finite("distance_sample", distance_sample);
        check_finite("selection_sample", selection_sample);
        const FreePath r = sample_combined_free_path(s.optical_media().data(),
                                                     s.optical_media().size(), ids, n, d,
                                                     distance_sample, selection_sample);
        py::dict out;
        out["distance"] = r.distance;
        out["sigma_total"] = r.sigma_total;
        out["selected_slot"] = r.selected_slot;
        out["medium_id"] = r.medium_id;
        return out;
      },
      py::arg("active_medium_ids"), py::arg("direction"), py::arg("distance_sample"),
      py::arg("selection_sample"),
      "The tracers' free path through overlapping media: distance = -ln(1 - u) / sigma_total\n"
      "(sigma = leaf_area_density * G(direction), summed over the media), and the medium\n"
      "hit, chosen by selection_sample in proportion to sigma. Returns 'distance' (the\n"
      "largest float when nothing can collide), 'sigma_total', 'selected_slot', 'medium_id'.\n"
      "A non-finite number or a zero direction is refused (ValueError naming it).");
  cls.def(
      "conditional_hotspot_transmittance",
      [](const Scene& s, int64_t medium_id, float optical_depth,
         float initial_medium_distance, float observation_distance,
         const FloatArray& source_direction, const FloatArray& observation_direction) {
        if (source_direction.size() != 3 || observation_direction.size() != 3)
          throw std::runtime_error("source and observation directions need 3 values");
        const OpticalTurbidMediumData& m = medium_at(s, medium_id);
        check_finite("optical_depth", optical_depth);
        check_finite("initial_medium_distance", initial_medium_distance);
        check_finite("observation_distance", observation_distance);
        const float3 a = direction_of(source_direction, "source_direction");
        const float3 b = direction_of(observation_direction, "observation_direction");
        return conditional_hotspot_transmittance(m, optical_depth, initial_medium_distance,
                                                 observation_distance, a, b);
      },
      py::arg("medium_id"), py::arg("optical_depth"), py::arg("initial_medium_distance"),
      py::arg("observation_distance"), py::arg("source_direction"),
      py::arg("observation_direction"),
      "Transmittance of a shadow ray of optical depth tau and length a (initial medium\n"
      "distance) inside a medium whose first-order path already ran b (observation distance)\n"
      "inside it: the paths share leaves over the characteristic length, shrinking with the\n"
      "angle between source and observation directions. exp(-tau) without correlation;\n"
      "never above 1. A non-finite number or a zero direction is refused (ValueError\n"
      "naming it).");
}

}  // namespace

void bind_scene_media(SceneClass& cls) { bind_media_of(cls); }

void bind_vulkan_scene_media(py::class_<VulkanSceneManager>& cls) { bind_media_of(cls); }

}  // namespace vesk::module
