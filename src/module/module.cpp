// The module's definition: attributes first, then each block in its fixed order.
#include <Python.h>

#include "core/memory_limit.h"
#include "core/workers.h"
#include "module/bind_common.h"

namespace {

// Runs on the calling thread while a simulation's workers run (it holds the
// interpreter lock): a pending Ctrl-C becomes KeyboardInterrupt once the workers stop.
void check_python_signals() {
  if (PyErr_CheckSignals() != 0) throw py::error_already_set();
}

}  // namespace

PYBIND11_MODULE(vesk_gpu, m) {
  m.doc() = "VESK - multi-backend 3D Radiative Transfer Model";
  m.attr("__version__") = "3.0.0rc1";
  vesk::set_interrupt_poll(check_python_signals);
  py::register_exception_translator([](std::exception_ptr p) {
    try {
      if (p) std::rethrow_exception(p);
    } catch (const vesk::RequestTooLarge& e) {
      PyErr_SetString(PyExc_MemoryError, e.what());
    }
  });
  vesk::module::bind_microwave(m);
  // The Vulkan block is always there: the loader is opened at run time, so a machine
  // without Vulkan lists no device and refuses a context instead of failing the import.
  m.attr("HAS_VULKAN") = true;
  vesk::module::bind_vulkan(m);
  vesk::module::bind_vulkan_photons(m);
  // This build has no OptiX backend; its block is absent.
  m.attr("HAS_OPTIX") = false;
  vesk::module::bind_generators(m);
  m.attr("HAS_EMBREE") = true;
  vesk::module::bind_scene(m);
  vesk::module::bind_optical(m);
  vesk::module::bind_forward(m);
  vesk::module::bind_energy_balance_transport(m);
  vesk::module::bind_turbid_leaf_rrt(m);
  vesk::module::bind_processes(m);
  vesk::module::bind_lidar(m);
  vesk::module::bind_vulkan_transport(m);
  vesk::module::bind_microwave_transport(m);
  vesk::module::bind_turbid(m);
  vesk::module::bind_turbid_workflow(m);
#ifdef VESK_BENCH_COUNTERS
  vesk::module::bind_bench(m);
#endif
}
