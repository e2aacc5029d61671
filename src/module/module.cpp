// The module's definition: attributes first, then each block in its fixed order.
#include "module/bind_common.h"

PYBIND11_MODULE(vesk_gpu, m) {
  m.doc() = "VESK - multi-backend 3D Radiative Transfer Model";
  m.attr("__version__") = "3.0.0rc1";
  vesk::module::bind_microwave(m);
  // This build has no Vulkan and no OptiX backend; their blocks are absent.
  m.attr("HAS_VULKAN") = false;
  m.attr("HAS_OPTIX") = false;
  vesk::module::bind_generators(m);
  m.attr("HAS_EMBREE") = true;
  vesk::module::bind_scene(m);
  vesk::module::bind_optical(m);
  vesk::module::bind_forward(m);
  vesk::module::bind_processes(m);
#ifdef VESK_BENCH_COUNTERS
  vesk::module::bind_bench(m);
#endif
}
