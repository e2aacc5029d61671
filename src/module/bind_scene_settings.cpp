// EmbreeSceneManager: materials, spectra, sun, sky, sensor, repetition and modes.
#include <Python.h>

#include "embree/scene_manager.h"
#include "module/bind_common.h"

namespace vesk::module {

using vesk::embree::EmbreeSceneManager;

namespace {

float3 direction3(const FloatArray& a) {
  if (a.size() != 3) throw py::value_error("direction must contain three values");
  return {a.data()[0], a.data()[1], a.data()[2]};
}

}  // namespace

void bind_scene_settings(SceneClass& cls) {
  cls.def("set_num_bands", &EmbreeSceneManager::set_num_bands,
          "Number of spectral bands, 1 to 100000; fixes the block length (n floats) of every\n"
          "spectral entry.");
  cls.def(
      "add_material",
      [](EmbreeSceneManager& s, int32_t type, int32_t offset, const py::list& scalar_params) {
        // At most eight parameters are read; later entries are ignored.
        float params[8] = {};
        const size_t n = std::min<size_t>(8, py::len(scalar_params));
        for (size_t i = 0; i < n; ++i) {
          const double v = PyFloat_AsDouble(scalar_params[i].ptr());
          if (v == -1.0 && PyErr_Occurred()) throw py::error_already_set();
          params[i] = float(v);
        }
        return s.add_material(type, offset, params, n);
      },
      py::arg("type"), py::arg("offset"), py::arg("scalar_params"),
      "Append a material; returns its index. offset: index of its first float in the\n"
      "spectral buffer, where it reads blocks of n_bands floats each:\n"
      "  0 Lambertian: one block, the reflectance r (0..1); BRDF r / pi.\n"
      "  1 RPV: four blocks rho0, k, Theta (-1..1), rho_c. rho0 enters the estimators as it\n"
      "    stands, NOT divided by pi: a Lambertian limit of BRF r needs rho0 = r / pi\n"
      "    (with k = 1, Theta = 0, rho_c = 1).\n"
      "  13 leaf: three consecutive blocks, front reflectance, back reflectance and\n"
      "    transmittance (each / pi as a BRDF / BTDF).\n"
      "In thermal mode block 0 holds the emissivity of every type. scalar_params: up to 8\n"
      "floats: [0] band-mean reflectance and [1] band-mean transmittance (a leaf chooses\n"
      "reflection or transmission in this ratio), [2] temperature K, [3] sunlit K and [4]\n"
      "shaded K for thermal emission; the rest are carried unread."
      );
  cls.def(
      "upload_spectral_params",
      [](EmbreeSceneManager& s, const FloatArray& values) {
        s.upload_spectral_params(to_vector(values));
      },
      "Replace the whole spectral parameter buffer (flat float32): reflectances, sun\n"
      "spectrum and sky tables, each addressed by its offset.");
  cls.def(
      "set_emitter",
      [](EmbreeSceneManager& s, int32_t type, const FloatArray& direction, int32_t offset) {
        s.set_emitter(type, direction3(direction), offset);
      },
      "Set the sun. type: 0, a directional sun (the only kind the CPU tracers know; other\n"
      "values are kept and treated alike); direction: 3 floats towards the sun, made unit\n"
      "length here (a zero vector means no sun); spectral_offset: index of its spectrum,\n"
      "n_bands floats of irradiance at normal incidence (W m-2 nm-1), or -1 for no sun.",
      py::arg("type"), py::arg("direction"), py::arg("spectral_offset"));
  cls.def(
      "update_emitter_direction",
      [](EmbreeSceneManager& s, const FloatArray& direction) {
        s.update_emitter_direction(direction3(direction));
      },
      "Re-aim the sun (a vector towards it, made unit length); the spectrum stays.",
      py::arg("direction"));
  cls.def(
      "set_sensor",
      [](EmbreeSceneManager& s, int32_t type, int32_t width, int32_t height, float ortho_w,
         float ortho_h, const FloatArray& cam_xform, float fov, int32_t projection_type,
         bool terrain_following) {
        SensorData d;
        d.type = type;
        d.width = width;
        d.height = height;
        d.ortho_width = ortho_w;
        d.ortho_height = ortho_h;
        const py::ssize_t n = std::min<py::ssize_t>(16, cam_xform.size());
        for (py::ssize_t i = 0; i < n; ++i) d.camera_to_world[i] = cam_xform.data()[i];
        d.fov = fov * 3.1415927f / 180.0f;
        d.projection_type = projection_type;
        s.set_sensor(d, terrain_following);
      },
      py::arg("type"), py::arg("width"), py::arg("height"), py::arg("ortho_w"),
      py::arg("ortho_h"), py::arg("cam_xform"), py::arg("fov") = 60.0f,
      py::arg("projection_type") = 0, py::arg("terrain_following") = false,
      "Set the sensor. type: 0 orthographic, 1 perspective, 3 pushbroom, 4 fisheye; width,\n"
      "height in pixels; ortho_w, ortho_h: orthographic (and pushbroom along-track) extent in\n"
      "scene units; cam_xform: row-major 4x4 camera-to-world (up to 16 floats, the camera\n"
      "looks down its -z); fov in degrees; projection_type: fisheye mapping (0 equisolid,\n"
      "1 equidistant, 2 orthographic, other stereographic). Any other type is refused.\n"
      "Image row 0 is the bottom of the picture (camera -y), the last row its top.");
  cls.def("set_sky", &EmbreeSceneManager::set_sky, py::arg("spectral_offset"),
          "Uniform sky radiance, n_bands floats at spectral_offset; clears the other skies.");
  cls.def("set_directional_sky", &EmbreeSceneManager::set_directional_sky,
          py::arg("spectral_offset"),
          "Directional sky table [n_bands, 16 zenith rows, 32 azimuth columns] at "
          "spectral_offset.");
  cls.def(
      "set_hw_sky",
      [](EmbreeSceneManager& s, int32_t offset, float x, float y, float z) {
        s.set_hw_sky(offset, float3{x, y, z});
      },
      py::arg("spectral_offset"), py::arg("sun_x"), py::arg("sun_y"), py::arg("sun_z"),
      "Hosek-Wilkie sky: 10 coefficients per band at spectral_offset, with its own sun\n"
      "direction; clears the other skies.");
  cls.def("set_thermal_mode", &EmbreeSceneManager::set_thermal_mode, py::arg("enabled"),
          py::arg("wavelengths"),
          "Switch thermal emission on or off; wavelengths: band centres in nm, one per band.");
  cls.def("thermal_mode", &EmbreeSceneManager::thermal_mode);
  cls.def("band_wavelengths", &EmbreeSceneManager::band_wavelengths,
          "Band centre wavelengths in nm, as given to set_thermal_mode().");
  cls.def("set_sif_only_mode", &EmbreeSceneManager::set_sif_only_mode, py::arg("enabled"),
          "Enable/disable SIF-only mode. When true the backward kernel returns pure SIF emission "
          "and suppresses optical reflectance (BSDF/NEE/sky).");
  cls.def("set_repetitive", &EmbreeSceneManager::set_repetitive, py::arg("num_repetitions"),
          py::arg("scene_x_size"), py::arg("scene_y_size"),
          "Repeat the scene as a tile [0, scene_x_size] x [0, scene_y_size]; rays cross up to\n"
          "num_repetitions tile walls.");
  cls.def(
      "repetitive_config",
      [](const EmbreeSceneManager& s) {
        const auto& r = s.repetition();
        return py::make_tuple(r.num_repetitions, r.scene_x_size, r.scene_y_size);
      },
      "(num_repetitions, scene_x_size, scene_y_size)");
  cls.def("set_measurement_plane", &EmbreeSceneManager::set_measurement_plane, py::arg("height"),
          "Height (scene units) of the plane over which photons of a repeated scene start (0.1\n"
          "above it) in the flux, forward and BRF runs. Until it is set, the plane is the top\n"
          "of the scene box as of the last build(), so photons start above every crown; set\n"
          "it lower only on purpose (photons born under a crown make no shadow).");
  cls.def(
      "sensor_config",
      [](const EmbreeSceneManager& s) {
        const SensorData& d = s.sensor();
        py::dict r;
        r["type"] = d.type;
        r["width"] = d.width;
        r["height"] = d.height;
        r["ortho_width"] = d.ortho_width;
        r["ortho_height"] = d.ortho_height;
        r["fov"] = d.fov;
        r["projection_type"] = d.projection_type;
        r["camera_to_world"] =
            std::vector<float>(d.camera_to_world, d.camera_to_world + 16);
        return r;
      },
      "The sensor record: 'type', 'width', 'height', 'ortho_width', 'ortho_height', 'fov'\n"
      "(radians), 'projection_type' and 'camera_to_world' (16 floats, row-major).");
}

}  // namespace vesk::module
