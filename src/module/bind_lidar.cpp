// LiDAR on the CPU scene: simulate_lidar_cpu.
#include "embree/scene_manager.h"
#include "lidar/lidar_simulation.h"
#include "module/bind_common.h"

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
        const py::ssize_t values = py::ssize_t(std::max(num_pulses, 0)) * 3;
        if (pulse_origins.ndim() != 1 || pulse_directions.ndim() != 1 ||
            pulse_origins.size() != values || pulse_directions.size() != values)
          throw py::value_error(
              "pulse_origins and pulse_directions must be flat arrays with num_pulses * 3 values");
        embree::LidarRequest q;
        q.pulse_origins = pulse_origins.data();
        q.pulse_directions = pulse_directions.data();
        q.num_pulses = num_pulses;
        q.beam_half_angle_rad = beam_half_angle_rad;
        q.beam_samples_per_dim = beam_samples_per_dim;
        q.pulse_energy = pulse_energy;
        q.sensor_area = sensor_area;
        q.range_resolution = range_resolution;
        q.min_range = min_range;
        q.max_range = max_range;
        q.num_wavelengths = num_wavelengths;
        q.pulse_fwhm_ns = pulse_fwhm_ns;
        q.peak_threshold = peak_threshold;
        q.max_returns_per_pulse = max_returns_per_pulse;
        q.direct_mode = direct_mode;
        embree::LidarResult r = embree::simulate_lidar(scene, q, {});
        py::dict d;
        const py::ssize_t pulses = std::max(num_pulses, 0);
        if (direct_mode) {
          d["waveform"] = py::array_t<float>({pulses, py::ssize_t(r.num_bins),
                                              py::ssize_t(num_wavelengths)});
        } else {
          d["waveform"] = move_to_numpy(std::move(r.waveform),
                                        {pulses, r.num_bins, py::ssize_t(num_wavelengths)});
        }
        d["points"] = move_to_numpy(std::move(r.points), {py::ssize_t(r.num_returns), 8});
        d["num_bins"] = r.num_bins;
        d["num_returns"] = r.num_returns;
        d["_execution"] = execution_dict(r.execution);
        return d;
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
