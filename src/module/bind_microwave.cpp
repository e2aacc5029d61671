// The microwave response evaluators (private entries that fill the transport tables).
#include "microwave/cylinder.h"
#include "microwave/evaluators.h"
#include "module/bind_common.h"

#include <pybind11/complex.h>

namespace vesk::module {
namespace {

const float* soil_array(const FloatArray& a) {
  if (a.ndim() != 1 || a.size() < 12)
    throw std::runtime_error("soil parameters must be a 1D array with 12 values");
  return a.data();
}

const float* trunk_array(const FloatArray& a) {
  if (a.ndim() != 1 || a.size() < 7)
    throw std::runtime_error("trunk parameters must be a 1D array with 7 values");
  return a.data();
}

const float* cosine_array(const FloatArray& a) {
  if (a.ndim() != 1) throw std::runtime_error("cosines must be a 1D array");
  return a.data();
}

py::array_t<float> table(std::vector<float>&& v, size_t rows, py::ssize_t cols) {
  return move_to_numpy(std::move(v), {py::ssize_t(rows), cols});
}

}  // namespace

void bind_microwave(py::module_& m) {
  m.def(
      "_evaluate_microwave_soil",
      [](float frequency, const FloatArray& parameters, const FloatArray& cosines, bool active) {
        const float* p = soil_array(parameters);
        const float* c = cosine_array(cosines);
        const size_t n = size_t(cosines.size());
        return table(microwave::evaluate_soil(frequency, p, c, n, active), n, 4);
      },
      py::arg("frequency"), py::arg("parameters"), py::arg("cosines"), py::arg("active"),
      "Bare-soil microwave response per cosine (frequency in Hz, 12 soil parameters). Passive:\n"
      "(n, 4) H and V brightness (K), H and V reflectivity; active: sigma0 HH, HV, VH, VV.\n"
      "Dobson's model clamps its effective conductivity at 0 S/m: for sand-rich, clay-poor\n"
      "soils the published regression goes negative and would give NaN; results differ from\n"
      "the regression only there.");
  m.def(
      "_evaluate_microwave_soil_reflectivity",
      [](float frequency, const FloatArray& parameters, const FloatArray& cosines,
         bool allow_hallikainen) {
        const float* p = soil_array(parameters);
        const float* c = cosine_array(cosines);
        const size_t n = size_t(cosines.size());
        return table(microwave::evaluate_soil_reflectivity(frequency, p, c, n, allow_hallikainen),
                     n, 2);
      },
      py::arg("frequency"), py::arg("parameters"), py::arg("cosines"),
      py::arg("allow_hallikainen"),
      "Smooth-soil Fresnel reflectivity per cosine: (n, 2) H and V.");
  m.def(
      "_evaluate_microwave_trunk",
      [](float frequency, const FloatArray& parameters, const FloatArray& cosines) {
        const float* p = trunk_array(parameters);
        const float* c = cosine_array(cosines);
        const size_t n = size_t(cosines.size());
        return table(microwave::evaluate_trunk(frequency, p, c, n), n, 4);
      },
      py::arg("frequency"), py::arg("parameters"), py::arg("cosines"),
      "Trunk surface response per cosine (7 trunk parameters): (n, 4) H and V brightness (K),\n"
      "H and V reflectivity.");
  m.def(
      "_evaluate_microwave_trunk_ground",
      [](float frequency, const FloatArray& soil_parameters, const FloatArray& trunk_parameters,
         const FloatArray& directions_to_trunk, const FloatArray& directions_to_ground,
         const FloatArray& ground_normals) {
        const float* soil = soil_array(soil_parameters);
        const float* trunk = trunk_array(trunk_parameters);
        const py::ssize_t n = directions_to_trunk.ndim() == 2 ? directions_to_trunk.shape(0) : -1;
        for (const FloatArray* a : {&directions_to_trunk, &directions_to_ground, &ground_normals})
          if (!has_rows_of(*a, 3) || a->shape(0) != n)
            throw std::runtime_error("direction and normal arrays must all have shape (N, 3)");
        return table(microwave::evaluate_trunk_ground(
                         frequency, soil, trunk, directions_to_trunk.data(),
                         directions_to_ground.data(), ground_normals.data(), size_t(n)),
                     size_t(n), 2);
      },
      py::arg("frequency"), py::arg("soil_parameters"), py::arg("trunk_parameters"),
      py::arg("directions_to_trunk"), py::arg("directions_to_ground"), py::arg("ground_normals"),
      "Trunk-ground double bounce per row: the trunk as a finite dielectric cylinder (infinite-\n"
      "cylinder series with a finite-length factor) and the ground's coherent reflection.\n"
      "(n, 2) H and V.");
  m.def(
      "_microwave_cylinder_amplitude",
      [](double frequency, double radius, std::complex<double> permittivity,
         double elevation_incident, double elevation_scattered, double phi) {
        const microwave::AmplitudeMatrix t = microwave::cylinder_amplitude(
            frequency, radius, permittivity, elevation_incident, elevation_scattered, phi);
        py::array_t<std::complex<double>> out({2, 2});
        for (int a = 0; a < 2; ++a)
          for (int b = 0; b < 2; ++b) out.mutable_at(a, b) = t[size_t(a)][size_t(b)];
        return out;
      },
      py::arg("frequency"), py::arg("radius"), py::arg("permittivity"),
      py::arg("elevation_incident"), py::arg("elevation_scattered"), py::arg("phi"),
      "Diagnostic: the infinite-cylinder amplitude matrix [[T1, T4], [T3, T2]] (complex128)\n"
      "acting on (E_par, E_perp), as the trunk-ground evaluator uses it.");
}

}  // namespace vesk::module
