// LiDAR on the CPU scene: simulate_lidar_cpu.
#include "embree/scene_manager.h"
#include "lidar/lidar_simulation.h"
#include "module/bind_transport_args.h"

namespace vesk::module {

void bind_lidar(py::module_& m) {
  m.def(
      "simulate_lidar_cpu",
      [](const embree::EmbreeSceneManager& scene, const FloatArray& pulse_origins,
         const FloatArray& pulse_directions, int32_t num_pulses, float beam_half_angle_rad,
         int32_t beam_samples_per_dim, float pulse_energy, float sensor_area,
         float range_resolution, float min_range, float max_range, int32_t num_wavelengths,
         float pulse_fwhm_ns, float peak_threshold, int32_t max_returns_per_pulse,
         bool direct_mode) {
        const lidar::LidarRequest q = lidar_request(
            pulse_origins, pulse_directions, num_pulses, beam_half_angle_rad, beam_samples_per_dim,
            pulse_energy, sensor_area, range_resolution, min_range, max_range, num_wavelengths,
            pulse_fwhm_ns, peak_threshold, max_returns_per_pulse, direct_mode);
        return lidar_dict(embree::simulate_lidar(scene, q, {}), q);
      },
      py::arg("scene"), py::arg("pulse_origins"), py::arg("pulse_directions"),
      py::arg("num_pulses"), py::arg("beam_half_angle_rad") = 0.0005f,
      py::arg("beam_samples_per_dim") = 10, py::arg("pulse_energy") = 1.0f,
      py::arg("sensor_area") = 0.1f, py::arg("range_resolution") = 0.15f,
      py::arg("min_range") = 0.0f, py::arg("max_range") = 100.0f, py::arg("num_wavelengths") = 1,
      py::arg("pulse_fwhm_ns") = 4.0f, py::arg("peak_threshold") = 1e-8f,
      py::arg("max_returns_per_pulse") = 5, py::arg("direct_mode") = false,
      "Pulsed laser scanner. pulse_origins, pulse_directions: flat float32, 3 per pulse (unit\n"
      "directions). direct_mode: one ray a pulse, a point at the first surface with intensity\n"
      "|cos| rho E A / (pi d^2) (rho: band 0). Waveform mode: a Gaussian-weighted grid of\n"
      "(beam_samples_per_dim + 1)^2 rays inside the beam cone (half angle in rad), each\n"
      "returning rho E (A / R^2) |cos| / pi from the first surface, attenuated by turbid media\n"
      "on the way out, plus single-scattering volume returns of the leaves of the media;\n"
      "binned every range_resolution m over [min_range, max_range], convolved with a Gaussian\n"
      "pulse of pulse_fwhm_ns, and peak-picked (strict local maxima above peak_threshold, the\n"
      "nearest max_returns_per_pulse). num_wavelengths bands are read from each material.\n"
      "Returns 'waveform' (num_pulses, num_bins, num_wavelengths) float32 (left unfilled in\n"
      "direct mode), 'points' (num_returns, 8) float32 records: x, y, z, intensity, return\n"
      "number, returns of the pulse, range m, pulse index (in pulse order in waveform mode,\n"
      "by worker in direct mode), 'num_bins', 'num_returns' and '_execution'.");
}

}  // namespace vesk::module
