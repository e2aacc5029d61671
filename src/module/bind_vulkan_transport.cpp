// The Vulkan scene's energy-balance transports and LiDAR scanner: the CPU entries'
// arguments, defaults and results, run by the device programs.
#include "module/bind_transport_args.h"
#include "vulkan/scene_manager.h"

namespace vesk::module {

using vesk::vulkan::VulkanSceneManager;

void bind_vulkan_transport(py::module_& m) {
  auto cls = py::reinterpret_borrow<py::class_<VulkanSceneManager>>(m.attr("VulkanSceneManager"));
  cls.def(
      "run_energy_balance_gpu",
      [](const VulkanSceneManager& s, int32_t n_samples, int32_t max_depth, int32_t band_type,
         const py::object& sun_irradiance, const py::object& sky_diffuse_radiance,
         float sky_lw_radiance, float sun_dir_x, float sun_dir_y, float sun_dir_z, bool two_sided,
         const py::object& sw_albedos, const py::object&, const py::object&, const py::object&) {
        EnergyBalanceArgs a(n_samples, max_depth, band_type, sun_irradiance, sky_diffuse_radiance,
                            sky_lw_radiance, sun_dir_x, sun_dir_y, sun_dir_z, two_sided,
                            sw_albedos);
        scene::EnergyBalanceResult out;
        s.run_energy_balance_gpu(a.request, a.albedos.size(), out);
        return energy_balance_tuple(std::move(out));
      },
      py::arg("n_samples") = 64, py::arg("max_depth") = 8, py::arg("band_type") = 0,
      py::arg("sun_irradiance") = py::none(), py::arg("sky_diffuse_radiance") = py::none(),
      py::arg("sky_lw_radiance") = 0.0f, py::arg("sun_dir_x") = 0.0f, py::arg("sun_dir_y") = 0.0f,
      py::arg("sun_dir_z") = 1.0f, py::arg("two_sided") = true, py::arg("sw_albedos") = py::none(),
      py::arg("sw_reflectance") = py::none(), py::arg("sw_back_reflectance") = py::none(),
      py::arg("sw_transmittance") = py::none(),
      "Run the energy balance reverse RT kernel. Returns (top, bot) numpy arrays of length "
      "n_primitives. bot is empty when two_sided=False. sw_albedos: optional "
      "float32[n_primitives] for 2-bounce SW NEE.\n\n"
      "run_energy_balance_cpu on the device: the same arguments, samples and random streams\n"
      "(one per primitive), one invocation per primitive summing its samples in 64 bits, so\n"
      "the results equal the CPU's to float rounding. band_type other than 0 or 1 is a\n"
      "ValueError. Needs 64-bit integers and floats in shaders.");
  cls.def(
      "run_energy_balance_multiband_gpu",
      [](const VulkanSceneManager& s, int32_t n_bands, int32_t n_samples, int32_t max_depth,
         const py::object& sun_irradiance, const py::object& sky_diffuse_radiance,
         const py::object& sky_directional_table, float sun_dir_x, float sun_dir_y, float sun_dir_z,
         bool two_sided, const py::object& sw_albedos, const py::object& sw_reflectance,
         const py::object& sw_back_reflectance, const py::object& sw_transmittance) {
        MultibandEnergyBalanceArgs a(n_bands, n_samples, max_depth, sun_irradiance,
                                     sky_diffuse_radiance, sky_directional_table, sun_dir_x,
                                     sun_dir_y, sun_dir_z, two_sided, sw_albedos, sw_reflectance,
                                     sw_back_reflectance, sw_transmittance);
        scene::MultibandEnergyBalanceResult out;
        s.run_energy_balance_multiband_gpu(a.request, out);
        return multiband_energy_balance_tuple(std::move(out), n_bands, s.n_primitives());
      },
      py::arg("n_bands"), py::arg("n_samples") = 64, py::arg("max_depth") = 8,
      py::arg("sun_irradiance") = py::none(), py::arg("sky_diffuse_radiance") = py::none(),
      py::arg("sky_directional_table") = py::none(), py::arg("sun_dir_x") = 0.0f,
      py::arg("sun_dir_y") = 0.0f, py::arg("sun_dir_z") = 1.0f, py::arg("two_sided") = true,
      py::arg("sw_albedos") = py::none(), py::arg("sw_reflectance") = py::none(),
      py::arg("sw_back_reflectance") = py::none(), py::arg("sw_transmittance") = py::none(),
      "Run the multi-band energy-balance reverse-transport kernel. Returns (top, bot, "
      "sunlit_fraction). Spectral arrays have shape [n_bands, n_primitives] and "
      "sunlit_fraction is per primitive. bot is empty when two_sided=False. Split "
      "reflectance/transmittance arrays enable true Mesh multi-scattering; sw_albedos is "
      "retained for legacy callers.\n\n"
      "run_energy_balance_multiband_cpu on the device: the same arguments, walks and random\n"
      "streams (one per primitive), one invocation per primitive summing its samples in 64\n"
      "bits, so the results equal the CPU's to float rounding. Needs 64-bit integers and\n"
      "floats in shaders.");
  cls.def(
      "simulate_lidar",
      [](const VulkanSceneManager& s, const FloatArray& pulse_origins,
         const FloatArray& pulse_directions, int32_t num_pulses, float beam_half_angle_rad,
         int32_t beam_samples_per_dim, float pulse_energy, float sensor_area,
         float range_resolution, float min_range, float max_range, int32_t num_wavelengths,
         float pulse_fwhm_ns, float peak_threshold, int32_t max_returns_per_pulse,
         bool direct_mode) {
        const lidar::LidarRequest q = lidar_request(
            pulse_origins, pulse_directions, num_pulses, beam_half_angle_rad, beam_samples_per_dim,
            pulse_energy, sensor_area, range_resolution, min_range, max_range, num_wavelengths,
            pulse_fwhm_ns, peak_threshold, max_returns_per_pulse, direct_mode);
        return lidar_dict(s.simulate_lidar(q, {}), q);
      },
      py::arg("pulse_origins"), py::arg("pulse_directions"), py::arg("num_pulses"),
      py::arg("beam_half_angle_rad") = 0.0005f, py::arg("beam_samples_per_dim") = 10,
      py::arg("pulse_energy") = 1.0f, py::arg("sensor_area") = 0.1f,
      py::arg("range_resolution") = 0.15f, py::arg("min_range") = 0.0f,
      py::arg("max_range") = 100.0f, py::arg("num_wavelengths") = 1,
      py::arg("pulse_fwhm_ns") = 4.0f, py::arg("peak_threshold") = 1e-8f,
      py::arg("max_returns_per_pulse") = 5, py::arg("direct_mode") = false,
      "simulate_lidar_cpu on the device: the same arguments, rays and returned dict. One\n"
      "invocation per pulse traces the direct-mode point or the raw waveform; the\n"
      "convolution with the pulse and the peak picking run on the host with the CPU's code.\n"
      "Points come in pulse order in both modes. Waveforms follow optical turbid media as\n"
      "on the CPU (64-bit shader arithmetic needed then). '_execution' names the path, as\n"
      "'vulkan.ray_query.lidar_waveform' or 'vulkan.ray_pipeline.lidar_point_cloud'.");
}

}  // namespace vesk::module
