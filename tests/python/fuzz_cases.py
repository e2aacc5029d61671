"""Seeded fuzz cases over every public entry point, and the child worker that runs them.

A case is a scene kind and Python statements run on a fresh scene `s` of that kind, which
are its label too. A statement returns or raises an ACCEPTED exception, which ends the case
and must leave the scene as it was (see snapshot). A last snapshot probes the scene, so a
call that returned but broke it fails in its own case. `fuzz_cases.py FD I,J,...` runs
those cases, writing `P i phase` and `D i problem` (empty if none) on file descriptor FD.
"""
import atexit
import os
import pickle
import random
import re
import shutil
import sys
import tempfile
import warnings

import numpy as np

import vesk_gpu as vk
from conftest import scene_state, unit_cube
from test_energy_balance import dyn_request, eb_request
from test_photosynthesis import photosynthesis_request
from test_physiology import leaf_request
from test_sif import assembly_request, sif_request

F = np.float32
SEED = 20261121
PER_ARG = 2  # values tried per argument; more where a class has more values to use up
ACCEPTED = (ValueError, TypeError, IndexError, KeyError, RuntimeError, OverflowError, MemoryError)


class CallbackError(Exception):
    """What the misbehaving progress callbacks raise; it may come out of the call."""


# ground (2), leaf x3 (6), sun (2), uniform sky (2), directional sky 2 x 16 x 32,
# Hosek-Wilkie 10 coefficients x 2 bands.
SPECTRAL = np.concatenate([[0.3, 0.5], [0.1, 0.4, 0.15, 0.45, 0.05, 0.35], [1000.0, 800.0],
                           [0.2, 0.1], np.linspace(0.01, 0.2, 1024), np.full(20, 0.5)]).astype(F)
SUN = np.array([0.3, 0.2, 0.93], F)
CAMERA = np.array([[1, 0, 0, 2], [0, 1, 0, 2], [0, 0, 1, 6], [0, 0, 0, 1]], F).ravel()


_CONTEXT = []


def vulkan_context():
    """One Vulkan context per worker: opening a device costs more than a case."""
    if not _CONTEXT:
        _CONTEXT.append(vk.VulkanContext(0))
    return _CONTEXT[0]


def make_scene(kind):
    """A CPU scene, or for the kinds that start with "vulkan" the same scene on the Vulkan
    backend (without the turbid medium, which its tracer refuses)."""
    vulkan = kind.startswith("vulkan")
    s = vk.VulkanSceneManager(vulkan_context(), "trace_closest.spv") if vulkan else \
        vk.EmbreeSceneManager()
    kind = {"vulkan": "repeated", "vulkan-empty": "empty"}.get(kind, kind)
    if kind == "empty":
        return s
    s.set_num_bands(2)
    s.set_thermal_mode(False, [550.0, 650.0])  # band wavelengths, for the Turbid states
    s.upload_spectral_params(SPECTRAL.copy())
    s.add_material(0, 0, [0.4, 0.0])
    s.add_material(13, 2, [0.25, 0.2])
    # A 4 x 4 ground tile [0, 4]^2 with a leaf cube standing on it.
    s.add_instance(s.add_mesh(**vk.make_ground_plane(2.0, 2.0, 0, 2.0)), 2.0, 2.0, 0.0)
    s.add_instance(s.add_mesh(**unit_cube(), material_id=1), 2.0, 2.0, 0.6)
    s.set_emitter(0, SUN, 8)
    s.set_sky(10)
    if kind != "repeated" and not vulkan:  # the leaf cube bounds a medium, but not in the tiles
        s.set_optical_turbid_media([1.0], [0], [1], [0.05], [-1, 0])
    s.set_sensor(0, 4, 3, 4.0, 3.0, CAMERA)
    s.set_measurement_plane(2.0)
    if kind == "repeated":
        s.set_repetitive(3, 4.0, 4.0)
    if kind == "thermal":
        s.set_thermal_mode(True, [10000.0, 11000.0])
    if kind != "unbuilt":
        s.build()
    if kind == "thermal":
        s.set_primitive_temperatures(np.linspace(290.0, 310.0, s.n_primitives()).astype(F))
        s.set_primitive_emissivities(np.full(s.n_primitives(), 0.95, F))
    return s


def boom(exc):
    def callback(*args):
        raise exc
    return callback


def turbid_owner(**changes):
    g = vk.make_sphere(1.0, np.array([2.0, 2.0, 4.0], F), 1)
    return {"owner_id": 5, "leaf_area_density": 1.0, "leaf_length": 0.05,
            "vertices": g["vertices"], "triangles": g["indices"], **changes}


def turbid_request(**changes):
    return {"owners": [turbid_owner()], "sample_budget": 64, "seed": 3, **changes}


def req(energy=False, drop=(), **changes):
    return {**{k: v for k, v in leaf_request(energy=energy).items() if k not in drop}, **changes}


def preq(drop=(), **changes):
    return {**{k: v for k, v in photosynthesis_request().items() if k not in drop}, **changes}


# The names case statements use; arrays are copied for every case.
NAMES = dict(
    np=np, vk=vk, F=F, nan=float("nan"), inf=float("inf"), CallbackError=CallbackError,
    boom=boom, req=req, preq=preq, treq=turbid_request, towner=turbid_owner,
    make_scene=make_scene, scene_state=scene_state, sifreq=sif_request, asmreq=assembly_request,
    first=lambda a, x: np.where(np.arange(np.size(a)).reshape(np.shape(a)) == 0, x, a),
    SPECTRAL=SPECTRAL, SUN=SUN, CAMERA=CAMERA, EYE12=np.eye(3, 4, dtype=F).ravel(),
    UP=np.array([0, 0, 1], F), LAYERS=np.array([0, 1, 2.5], F), **{
        f"CUBE_{k[0].upper()}": v for k, v in unit_cube().items()},
    ORIGINS=np.array([[1, 1, 5], [2, 2, 5], [3, 1.5, 5], [9, 9, 5]], F),
    DOWN=np.tile(np.array([0, 0, -1], F), (4, 1)), BRF_DIRS=np.array([0, 0, 1, .5, .2, .84], F),
    SOIL=np.array([0.3, 0.2, 0.25, 0, 1, 1.5, 0, 295, 290, 1, 0.01, 0], F),
    TRUNK=np.array([0.15, 6.0, 0.4, 295.0, 0.0, 0.0, 1.0], F),
    COSINES=np.cos(np.radians(np.arange(0, 80, 10))).astype(F),
    TO_TRUNK=np.array([[0.7, 0.0, -0.714], [0.5, 0.4, -0.768]], F),
    TO_GROUND=np.array([[0.7, 0.0, -0.714], [-0.2, 0.6, -0.774]], F), UP2=np.eye(3, dtype=F)[[2, 2]],
    # Microwave: ground soil, leaf-cube vegetation, one trunk material; the device tables
    # at two cosines.
    MW_SOIL=np.array([[0.3, 0.2, 0.25, 0, 1, 1.5, 0, 295, 290, 1, 0.01, 0]], F),
    MW_VEG=np.array([[0.3, 0.1, 300.0]], F), MW_TRUNK=np.array([[0.15, 6.0, 0.4, 295, 0, 0, 1]], F),
    MW_MAP=np.array([0, 1], np.int32), MW_O=np.array([2, 2, 5, 0], F),
    MW_D=np.array([0, 0, -1, 0], F), MW_T4=np.tile(np.array([200, 250, 0.3, 0.15], F), 2),
    MW_T2=np.full(4, 0.3, F), MW_VP=np.array([0.3, 0.1, 300, 0], F), MW_NONE=np.zeros(0, F),
    MW_INFO=np.array([[t, -1, 0, 0, 0, -1, -1, -1, 0] for t in (1, 2, 3)], np.int32).ravel())


WORKFLOW_LEAF = {"temperature": 298.0, "co2": 400.0, "relative_humidity": 0.5, "vcmax25": 50.0,
                 "jmax25": 100.0, "rd25": 1.0, "ball_berry_slope": 9.0, "ball_berry_intercept": 0.01}


def namespace_of(s):
    return namespace(s)


def namespace(s):
    return {**{k: (v.copy() if isinstance(v, np.ndarray) else v) for k, v in NAMES.items()},
            "s": s, "CUBE": unit_cube(),
            "prim": lambda v, per=1: np.full(s.n_primitives() * per, v, F),
            "inst": lambda v, per=1, dtype=F: np.full(s.num_instances() * per, v, dtype),
            "ebreq": lambda **c: eb_request(s.n_primitives(), **c),
            "dynreq": lambda **c: dyn_request(s.n_primitives(), **c),
            "tdom": lambda: vk._build_turbid_domain_embree(s, turbid_request())["domain_id"],
            # A domain over the leaf cube (instance 1), and the workflow's tokens on it.
            "tdomi": lambda: vk._build_turbid_domain_embree(s, turbid_request(owners=[
                {"owner_id": 8, "leaf_area_density": 1.0, "leaf_length": 0.05, "instance_id": 1}]))["domain_id"],
            "tstate": lambda: vk._build_turbid_state_embree(
                s, {"domain_id": namespace_of(s)["tdomi"](), "rays_per_side": 2})["state"],
            "tphys": lambda: vk._solve_turbid_physiology_embree(s, {
                "state": namespace_of(s)["tstate"](), **WORKFLOW_LEAF})["state"],
            "tfield": lambda: vk._build_turbid_field_embree(
                s, {"state": namespace_of(s)["tphys"]()})["field"],
            "sums": lambda: vk._simulate_flux_exact(s, 2, 2, 300, 2, 0.7, 0, 4, 3, True),
            "saved": lambda **change: saved_state(s, change)}


FILES = tempfile.mkdtemp(prefix="vesk-fuzz-")
atexit.register(shutil.rmtree, FILES, True)
NAMES.update(TMP=os.path.join(FILES, "scene.npz"), junk=lambda: junk_file(), WORKFLOW_LEAF=WORKFLOW_LEAF)


def saved_state(s, change):
    """A scene file of s's state with keys changed (None: dropped)."""
    state = {k: v for k, v in {**s.__getstate__(), **change}.items() if v is not None}
    path = os.path.join(FILES, "changed.npz")
    with open(path, "wb") as f:
        np.savez(f, **state)
    return path


def junk_file():
    path = os.path.join(FILES, "junk.npz")
    with open(path, "wb") as f:
        f.write(b"not a scene" * 10)
    return path


def bar(text):
    """The items of a block of text, ` | ` or a line apart."""
    return text.strip().replace("\n", " | ").split(" | ")


# Every entry point that takes arguments, with positional arguments that work on a ready
# scene as `class:expression`; ! marks a size, whose odd values may ask for more than any
# machine has. Classes: i int, l photon count, f float, c complex, b bool, fa / ia float /
# int32 array, fl float list, o outputs, s scene, r leaf request, q photosynthesis request,
# e energy-balance request, d dynamic photosynthesis request, t Turbid domain request,
# g SIF finalisation request, a SIF assembly request, x string, p progress callback,
# u exact photon sums, pa file path.
ENTRIES = {item.split()[0]: [(t[0] == "!",) + tuple(t.lstrip("!").split(":", 1))
                             for t in item.split()[1:]] for item in bar("""
s.add_mesh fa:CUBE_V fa:CUBE_N ia:CUBE_I i:1 | s.add_instance i:0 f:1.0 f:1.0 f:0.5 f:0.5
s.add_instance_xform i:1 fa:EYE12 | s.add_instances_xform i:1 fa:np.tile(EYE12,(2,1))
s.update_instance_transform i:1 fa:EYE12 | s.trace_closest fa:ORIGINS fa:DOWN f:1e-4 f:1e30
s.set_num_bands i:2 | s.set_populate_primitive_soa b:True | s.set_sif_only_mode b:True
s.add_material i:0 i:0 fl:[0.4,0.0] | s.set_thermal_mode b:True fl:[10000.0,11000.0]
s.upload_spectral_params fa:SPECTRAL | s.set_emitter i:0 fa:SUN i:8
s.update_emitter_direction fa:UP | s.set_measurement_plane f:1.0 | s.set_repetitive i:3 f:4.0 f:4.0
s.set_sensor i:0 i:4 i:3 f:4.0 f:3.0 fa:CAMERA f:60.0 i:0 b:False
s.set_sky i:10 | s.set_directional_sky i:12 | s.set_hw_sky i:1036 f:0.3 f:0.2 f:0.93
s.set_optical_turbid_media fa:np.array([1.0],F) ia:np.array([0],np.int32) \
ia:np.array([1],np.int32) fa:np.array([0.05],F) ia:np.array([-1,0],np.int32)
s.optical_turbid_medium i:0 | s.sample_combined_free_path ia:np.array([0],np.int32) fa:UP f:0.5 f:0.5
s.conditional_hotspot_transmittance i:0 f:1.0 f:1.0 f:0.5 fa:UP fa:SUN
s.set_primitive_emissivities fa:prim(0.9) | s.set_primitive_temperatures fa:prim(305.0)
s.set_primitive_sif_spectra fa:prim(0.01,2) i:2 | s.set_instance_sif_spectra fa:inst(0.01,2) i:2
s.set_instance_turbid_thermal_state fa:inst(300.0) fa:inst(290.0) fa:inst(0.5) fa:inst(0.97)
s.set_instance_sif_source_fields fa:inst(0.01,16) fa:inst(0.01,12) fa:inst(0.01,96) \
fa:inst(0.01,96) fa:inst(0.0,3) fa:inst(4.0,3) ia:inst(2,3,np.int32) i:2 i:8 i:2 i:3
vk.simulate_cpu s:s i:1 i:2 p:None o:['radiance'] i:0
s.simulate_backward i:1 i:2 p:None o:['radiance'] i:0 | s.update_spectral_params i:2 fa:np.ones(2,F)
vk.simulate_brf_cpu s:s fa:BRF_DIRS l:200 i:4 p:None l:0
vk.simulate_forward_cpu s:s i:2 i:2 fa:LAYERS l:300 i:2 b:True fa:BRF_DIRS i:2 f:0.7 i:4 i:0 p:None l:0
vk.simulate_flux_cpu s:s i:2 i:2 l:300 i:2 f:0.7 i:0 i:4 i:3 b:True p:None l:0
s.simulate_brf fa:BRF_DIRS l:200 i:4 p:None l:0
s.simulate_forward_radiation i:2 i:2 fa:LAYERS l:300 i:2 b:True fa:BRF_DIRS i:2 f:0.7 i:4 i:0 p:None l:0
s.simulate_flux i:2 i:2 l:300 i:2 f:0.7 i:0 i:4 i:3 b:True p:None l:0
vk._simulate_brf_exact s:s fa:BRF_DIRS l:200 i:4 l:0 u:None
vk._simulate_forward_exact s:s i:2 i:2 fa:LAYERS l:300 i:2 b:True fa:BRF_DIRS i:2 f:0.7 i:4 i:0 \
l:0 u:None
vk._simulate_flux_exact s:s i:2 i:2 l:300 i:2 f:0.7 i:0 i:4 i:3 b:True l:0 u:None
vk._simulate_cpu_rows s:s i:1 i:2 o:['radiance'] i:0 i:1 i:2
s.save pa:TMP | s.load pa:saved()
vk.solve_physiology_cpu s:s r:req() | vk.execute_photosynthesis_process_static_cpu s:s q:preq()
vk._evaluate_microwave_trunk f:1.4e9 fa:TRUNK fa:COSINES
vk._evaluate_microwave_soil f:1.4e9 fa:SOIL fa:COSINES b:True
vk._evaluate_microwave_soil_reflectivity f:5.3e9 fa:SOIL fa:COSINES b:True
vk._evaluate_microwave_trunk_ground f:1.4e9 fa:SOIL fa:TRUNK fa:TO_TRUNK fa:TO_GROUND fa:UP2
vk._microwave_cylinder_amplitude f:1.4e9 f:0.1 c:(8+2.5j) f:0.3 f:0.2 f:0.7
vk.simulate_microwave_cpu s:s f:1.4e9 fa:MW_SOIL fa:MW_VEG fa:MW_TRUNK ia:MW_MAP
vk.simulate_active_microwave_cpu s:s f:1.4e9 fa:MW_SOIL fa:MW_VEG fa:MW_TRUNK ia:MW_MAP
s.simulate_microwave f:1.4e9 fa:MW_SOIL fa:MW_VEG fa:MW_TRUNK ia:MW_MAP
s.simulate_active_microwave f:1.4e9 fa:MW_SOIL fa:MW_VEG fa:MW_TRUNK ia:MW_MAP
s.run_microwave_wavefront b:False !i:2 f:290.0 f:0.0 i:1 i:1 i:1 !i:2 fa:MW_O fa:MW_D ia:MW_MAP \
fa:MW_T4 fa:MW_T4 fa:MW_T2 fa:MW_VP fa:MW_T4 fa:MW_NONE fa:MW_NONE ia:MW_INFO fa:MW_NONE \
fa:MW_NONE fa:MW_NONE
vk.make_ground_plane !f:5.0 !f:5.0 i:0 !f:2.0 | vk.make_sphere f:1.0 fa:np.zeros(3,F) !i:2
vk.make_cylinder f:1.0 f:2.0 !i:8
vk.run_energy_balance_cpu s:s !i:16 i:8 i:0 f:800.0 f:30.0 f:100.0 f:0.3 f:0.2 f:0.93 b:True \
fa:prim(0.3) | vk.run_energy_balance_multiband_cpu s:s i:2 !i:16 i:4 fa:np.array([800.0,600.0],F) \
fa:np.array([30.0,20.0],F) fa:np.full(1024,0.1,F) f:0.3 f:0.2 f:0.93 b:True fa:prim(0.3,2) \
fa:prim(0.4,2) fa:prim(0.3,2) fa:prim(0.2,2)
vk._debug_turbid_samples_embree s:s t:treq() x:'preview' i:7 !i:64 !i:0
vk._preflight_turbid_sampling_embree s:s t:treq() | vk._build_turbid_domain_embree s:s t:treq()
vk._build_turbid_domains_embree s:s t:{'domains':[treq()]} | vk._test_turbid_domain_id_exhaustion
vk._extend_turbid_samples_embree s:s i:tdom() !i:128 | vk._turbid_domain_revisions_embree s:s i:tdom()
vk._debug_turbid_domain_samples_embree s:s i:tdom() | vk._debug_turbid_scene_relations_embree s:s
vk._debug_turbid_residency_embree s:s | vk._set_turbid_commit_failure_embree s:s x:'table_stage'
vk._build_turbid_state_embree s:s w:{'domain_id':tdomi(),'rays_per_side':2}
vk._turbid_state_arrays_embree s:s w:tstate() | vk._check_turbid_field_embree s:s w:tfield()
vk._solve_turbid_physiology_embree s:s w:{'state':tstate(),**WORKFLOW_LEAF}
vk._build_turbid_field_embree s:s w:{'state':tphys()}
vk._build_turbid_thermal_source_embree s:s w:{'state':tphys()}
vk._build_turbid_sif_source_embree s:s w:{'state':tphys(),'grid_dims':[2,2,2]}
vk.run_turbid_leaf_rrt_cpu s:s w:{'domain_id':tdomi(),'temperature':300.0,'rays_per_side':2}
vk.execute_energy_balance_process_cpu s:s e:ebreq() | vk.execute_photosynthesis_process_dynamic_cpu s:s d:dynreq()
vk.finalize_sif_process_cpu s:s g:sifreq() | vk.assemble_sif_source_cpu s:s a:asmreq()
vk.solve_physiology_vulkan s:s r:req() | vk.execute_photosynthesis_process_static_vulkan s:s q:preq()
vk.finalize_sif_process_vulkan s:s g:sifreq() | vk.assemble_sif_source_vulkan s:s a:asmreq()
vk.execute_energy_balance_process_vulkan s:s e:ebreq() | vk.execute_photosynthesis_process_dynamic_vulkan s:s d:dynreq()
vk._debug_turbid_samples_vulkan s:s t:treq() x:'preview' i:7 !i:64 !i:0
vk.simulate_lidar_cpu s:s fa:np.array([1.0,1.0,5.0],F) fa:np.array([0.0,0.0,-1.0],F) i:1 \
f:0.0005 !i:4 f:1.0 f:0.1 !f:0.15 f:0.0 !f:10.0 !i:1 f:4.0 f:1e-8 i:5 b:False
s.run_energy_balance_gpu !i:16 i:8 i:0 f:800.0 f:30.0 f:100.0 f:0.3 f:0.2 f:0.93 b:True fa:prim(0.3)
s.run_energy_balance_multiband_gpu i:2 !i:16 i:4 fa:np.array([800.0,600.0],F) \
fa:np.array([30.0,20.0],F) fa:np.full(1024,0.1,F) f:0.3 f:0.2 f:0.93 b:True fa:prim(0.3,2) \
fa:prim(0.4,2) fa:prim(0.3,2) fa:prim(0.2,2)
s.simulate_lidar fa:np.array([1.0,1.0,5.0],F) fa:np.array([0.0,0.0,-1.0],F) i:1 \
f:0.0005 !i:4 f:1.0 f:0.1 !f:0.15 f:0.0 !f:10.0 !i:1 f:4.0 f:1e-8 i:5 b:False""")}

# Hostile values of each class, ` | ` apart; V stands for the working value.
VALUES = {}
for line in """
i: 0 | -1 | -2**31 | 2**31 | -2**31-1 | 2**63 | 1000 | 1.5 | nan | None | '1' | True | np.int64(1)
l: 0 | -1 | -2**31 | -2**63 | 2**63 | 2**64 | 1.5 | nan | None | '100'
f: nan | inf | -inf | 1e38 | -1e38 | 1e39 | 1e300 | 1e-40 | 5e-324 | -0.0 | -1.0 | None | '1.0'
f: 1j | 10**400 | np.float32(nan)
c: complex(nan, nan) | complex(inf, 0) | complex(0, inf) | 0j | -1+0j | 1e300+1e300j | None
c: 1e-320+0j | '1+2j'
b: None | 2 | 'yes' | nan | [] | np.bool_(True) | object()
fa: np.full_like(V, nan) | np.full_like(V, inf) | np.full_like(V, -inf) | first(V, nan)
fa: np.full_like(V, 1e38) | np.full_like(V, -1e38) | np.full_like(V, 1e-40) | V * 0 | -V
fa: V.ravel() | np.concatenate([V, V[:1]]) | V.astype(np.float64) | V.astype(np.int32)
fa: V.astype(np.complex64) | V.astype(str) | V.tolist() | np.repeat(V, 2, axis=-1)[..., ::2]
ia: np.full_like(V, -1) | np.full_like(V, 2**31-1) | np.full_like(V, -2**31) | V + 1000
ia: first(V.astype(F), nan) | V.astype(np.int64) + 2**32
fa ia: V[:0] | V[..., :-1] | V[None] | V.astype(object) | None | 'abc' | 7 | [[1, 'a'], None]
fl: [] | [nan] * 8 | [inf] * 8 | [1e38] * 8 | [-1.0] * 8 | ['a'] | [None] | [1j] | [2**1024]
fl: list(map(float, range(100))) | tuple(V) | np.array(V) | [V] | None | 'ab'
o: ['bogus'] | [] | [None] | 'radiance' | [1] | None | 42 | {'radiance': 1} | ['radiance'] * 100
o: ['radiance', 'standard_error', 'event_aov', 'scattering_order']
s: None | 42 | 'scene' | vk.EmbreeSceneManager() | make_scene('unbuilt')
r: [] | None | req(drop=['apar']) | req(drop=['tolerance']) | req(apar=None) | req(tolerance=nan)
r: req(apar=np.full(8, 250.0, F)) | req(apar=np.zeros((0, 2), F), temperature=np.zeros(0, F))
r: req(apar=np.full((4, 2), inf, F)) | req(apar=np.full((4, 2), 250.0).astype(object))
r: req(temperature=np.full(4, nan, F)) | req(temperature=np.zeros(4, F)) | req(co2=np.zeros(0, F))
r: req(temperature=np.full(3, 298.0, F)) | req(wind=np.zeros(4, F), pressure=np.zeros(4, F))
r: req(max_iterations=-1) | req(max_iterations=2**31) | req(max_iterations='80') | req(tolerance=0)
r: req(True, drop=['leaf_width']) | req(True, absorbed_shortwave=np.full(4, nan, F))
r: req(True, sidedness=np.zeros(4, F), stomata_sides=np.full(4, -1.0, F))
r: req(True, dynamic_energy_balance='yes') | req(True, leaf_width=np.zeros(4, F))
e d: [] | None | {} | V | {**V, 'air_temperature': None}
x: '' | 'bogus' | None | 1 | 'preview' * 1000 | b'preview'
u: {} | [] | 7 | {**sums(), 'hi': sums()['hi'].astype(np.int32)} | {**sums(), 'lo': sums()['lo'][:-1]}
u: {**sums(), 'num_photons': 5} | {**sums(), 'unit_exponents': sums()['unit_exponents'] + 1}
u: {**sums(), 'first_photon': 4096} | {**sums(), 'first_photon': None}
pa: None | 1 | 'a\x00b' | b'scene.npz' | [] | junk() | saved(spectral=None) | saved(version=2)
pa: saved(spectral=np.zeros(3)) | saved(mesh_sizes=np.full((2, 3), 10**6)) | saved(num_bands=2.5)
pa: saved(built=True, structure_current=False) | saved(instance_mesh_ids=np.full(2, 9, np.int32))
t: treq(owners=[]) | treq(seed=-1) | treq(sample_budget=2**40) | treq(max_candidates=-5) | {}
t: treq(owners=[towner(leaf_length=nan)]) | treq(owners=[towner(vertices=np.full((42, 3), nan, F))])
t: treq(owners=[towner(triangles=np.full((80, 3), 99, np.int32))]) | treq(owners=[towner(instance_id=99)])
t: treq(owners=[towner(triangles=np.zeros((0, 3), np.int32))]) | treq(relations={})
t: treq(owners=[towner(owner_id=[0, 0, 0, 0])]) | treq(owners=[towner(), towner()]) | treq(owners=None)
t: treq(owners=[towner(vertices=np.zeros((42, 2), F))]) | treq(quality=3) | treq(orientation_theta_bins=2**31)
t: treq(owners=[towner(leaf_angle_distribution=9)]) | treq(owners=[towner(vertices=towner()['vertices'] * 1e30)])
e: ebreq(air_temperature=nan) | ebreq(primitive_material_ids=prim(0).astype(np.int32)[1:])
e: ebreq(material_active=np.full(1, 2, np.uint8)) | ebreq(damping=0.0) | ebreq(n_samples=2**31)
e: ebreq(max_iterations=-1) | ebreq(precomputed_shortwave=True) | ebreq(material_sw_albedo=[])
e: ebreq(primitive_material_ids=prim(5).astype(np.int32)) | ebreq(sun_dir_z=0.0)
e: ebreq(material_emissivity=np.full(1, 'a')) | ebreq(newton_tolerance=inf)
d: dynreq(co2=nan) | dynreq(apar=np.zeros(3, F)) | dynreq(emissivity=prim(0)) | dynreq(conditional=True)
d: dynreq(n_samples=0) | dynreq(active=prim(2).astype(np.uint8)) | dynreq(max_iterations=2**31)
d: dynreq(conditional=True, sunlit_fraction=prim(2), apar_sunlit=prim(1), apar_shaded=prim(1), \
shortwave_sunlit=prim(1), shortwave_shaded=prim(-1)) | dynreq(initial_temperature=prim(-5))
q: [] | None | preq(drop=['absorbed_direct']) | preq(absorbed_top=np.zeros(20, F))
q: preq(absorbed_bottom=np.zeros((4, 5), F)) | preq(wavelengths=np.zeros((2, 2), F))
q: preq(material_active=np.zeros(0, np.uint8)) | preq(material_active=np.ones(2**16, np.uint8))
q: preq(material_ids=np.full(5, 2**31-1, np.int32)) | preq(material_ids=np.full(5, -2**31))
q: preq(material_fluorescent=np.full(3, 255, np.uint8))
q: preq(wavelengths=np.full(4, nan, F)) | preq(wavelengths=np.full(4, -550.0, F))
q: preq(absorbed_direct=np.full((5, 4), -1.0, F)) | preq(sunlit_fraction=np.full(5, inf, F))
q: preq(absorbed_top=np.full((5, 4), 3e38, F), absorbed_bottom=np.full((5, 4), 3e38, F))
q: preq(absorbed_top=np.zeros((2**31, 0), F)) | preq(temperature_sunlit=np.full(5, 1e38, F))
q: preq(co2=nan) | preq(co2=1e38) | preq(relative_humidity=-0.0) | preq(max_iterations=2**31)
q: preq(tolerance=1e-45) | preq(tolerance='small') | preq(quantum_yield=np.full(3, 2.0, F))
q: preq(vcmax25=None) | preq(jmax25=np.full(3, 1e38, F)) | preq(rd25=np.full(3, -0.0, F))
w: [] | None | {} | {**V, 'state': None} | {**V, 'state': {**V.get('state', V), 'workflow_stage': 9}}
w: {**V, 'state': {**V.get('state', V), 'geometry_revision': 0}} | {**V, 'domain_id': 2**64}
w: {**V, 'state': {**V.get('state', V), 'state_revision': 2**63}} | {**V, 'grid_dims': [0, 2**31, 1]}
w: {**V, 'rays_per_side': 2**31} | {**V, 'temperature': nan} | {**V, 'co2': np.zeros(3, F)}
w: {**V, 'theta_bins': 2**31-1, 'phi_bins': 2**31-1} | {**V, 'emissivity': 0.0} | {**V, 'max_depth': -1}
w: {**V, 'primitive_temperature': np.full(3, inf, F)} | {**V, 'band_widths': np.zeros(2, F)}
g a: [] | None | {} | V | {**V, 'cell_stride': 4, 'element_phi_f': None}
g: {**V, 'material_ids': None} | sifreq(element_phi_f=np.zeros(0, F))
g: sifreq(absorbed_top=np.zeros(20, F)) | sifreq(element_phi_f=np.full(4, 2.0, F))
g: sifreq(absorbed_top=np.zeros((0, 5), F), absorbed_bottom=np.zeros((0, 5), F))
g: sifreq(selected_band_indices=np.array([4, 2], np.int32))
g: sifreq(material_ids=np.full(4, 2**31-1, np.int32)) | sifreq(absorbed_bottom=np.full((4, 5), nan))
g: sifreq(selected_band_indices=np.arange(5, dtype=np.int32), material_phi_f=np.ones(1, F) * inf)
a: {**V, 'source': None} | asmreq(theta_bins=65536, phi_bins=65536) | asmreq(cell_stride=2**31-1)
a: asmreq(grid_dims=np.full((2, 3), 2**31-1, np.int32)) | asmreq(instance_ids=np.full(8, -1))
a: asmreq(bounds_max=np.zeros((2, 3), F)) | asmreq(normals=np.zeros((8, 3), F)) | asmreq(source=[])
a: asmreq(source=np.zeros((2**31-1, 0), F), cell_stride=2**31-1, phi_bins=2**31-1, theta_bins=1)
a: asmreq(positions=np.full((8, 3), 1e38, F), bounds_min=np.full((2, 3), -3e38, F), \
bounds_max=np.full((2, 3), 3e38, F)) | asmreq(direct_source=np.full((2, 8), -1.0, F))
""".strip().splitlines():
    classes, values = line.split(": ", 1)
    for cls in classes.split():
        VALUES.setdefault(cls, []).extend(values.split(" | "))

CALLBACKS = bar("""boom(CallbackError('stop')) | boom(ValueError('stop')) | boom(MemoryError()) | 42
lambda *a: object() | lambda *a: 10**100 | lambda: None | lambda done: None | 'progress'
lambda a, b, c, d, e: None | lambda *a: vk.simulate_cpu(s, spp=1, max_depth=1)""")
# These change the scene on purpose, so it may differ after a failure.
MUTATORS = bar("""lambda *a: s.upload_spectral_params(np.zeros(1, F)) | lambda *a: s.build()
lambda *a: s.add_material(0, 0, [0.5]) | lambda *a: s.clear_for_reuse()
lambda *a: (s.add_instance(s.add_mesh(**CUBE), 1, 1, 1), s.build())
lambda *a: s.set_num_bands(7) | lambda *a: s.set_sensor(0, 64, 64, 4.0, 4.0, CAMERA)""")


VULKAN_DEVICES = any(d["compatible"] for d in vk.list_vulkan_devices())


def kinds_for(target, kinds):
    """The scene kinds a target can be called on: a method on the scene classes that
    have it, Vulkan scenes only on a machine with a Vulkan device."""
    if target.endswith("_vulkan"):  # module functions of the Vulkan scene
        return ["vulkan"] if VULKAN_DEVICES else []
    if not target.startswith("s."):
        return kinds
    name = target[2:]
    cpu = [k for k in kinds if hasattr(vk.EmbreeSceneManager, name)]
    gpu = ["vulkan"] if VULKAN_DEVICES and hasattr(vk.VulkanSceneManager, name) else []
    return cpu + gpu if cpu else gpu * 2


def working_kind(target):
    """The scene the entry's working call is run on."""
    return "ready" if "ready" in kinds_for(target, ["ready"]) else "vulkan"


def call(target, over=None):
    """The entry's working call, with the arguments at the positions in `over` replaced."""
    args = ((over or {}).get(i, e) for i, (_, _, e) in enumerate(ENTRIES[target]))
    return f"{target}({', '.join(args)})"


USES = {"SIM": call("vk.simulate_cpu"), "BRF": call("vk.simulate_brf_cpu"),
        "FWD": call("vk.simulate_forward_cpu"), "FLUX": call("vk.simulate_flux_cpu"),
        "TRACE": call("s.trace_closest")}
# Call orders that matter, as `kind: statement; statement`, where the names in USES stand
# for the working call. Every case ends with the probe, which renders and runs photons on
# whatever state the statements left. ! marks requests far beyond any machine, which must
# be refused up front (billions of samples cost no memory: that run starts, the callback
# ends it).
SEQUENCES = [f"{k}: s.build_reuse_gas(); {u}" for k in ("empty", "unbuilt") for u in USES] + [
    f"{k}: s.build_reuse_geometry(); FWD" for k in ("empty", "unbuilt")] + [
    f"{pre}; {u}" for u in ("SIM", "FWD", "TRACE") for pre in (
        "empty: s.build()", "ready: s.clear_for_reuse()",
        "ready: s.clear_for_reuse(); s.build_reuse_gas()")] + [
    f"ready: s.add_instance(1, 1.0, 1.0, 2.0, 0.5); {u}" for u in ("SIM", "TRACE", "FWD")] + [
    f"ready: s.trace_closest({o}, {d})" for v in ("nan", "inf", "-inf", "1e38", "1e-40", "0.0")
    for o, d in ((f"np.full((4, 3), {v}, F)", "DOWN"), ("ORIGINS", f"np.full((4, 3), {v}, F)"))
] + [f"ready: s.trace_closest(ORIGINS, DOWN, {lo}, {hi})" for lo, hi in (
    ("nan", "1e30"), ("-inf", "1e30"), ("1e38", "1e30"), ("1e-4", "nan"), ("1e-4", "-1.0"),
    ("1e-4", "inf"), ("1e-4", "0.0"))] + [f"ready: {st}" for st in bar("""
s.add_instance(1, 1.0, 1.0, 0.5, nan); s.build() | s.add_instance(1, inf, 1.0, 0.5); s.build()
s.add_instance(1, 1.0, 1.0, 0.5, 1e38); s.build() | s.add_instance(1, 1.0, 1.0, 0.5, 0.0); s.build()
s.set_instance_sif_spectra(inst(0.01, 2), 2); s.add_instance(1, 1, 1, 2); s.build()
s.update_instance_transform(0, np.full(12, nan, F)); s.refit_ias()
s.update_instance_transform(1, np.full(12, 1e38, F)); s.refit_ias(); TRACE
s.add_instance(s.add_mesh(**CUBE, material_id=s.add_material(0, 5000, [0.5]))); s.build()
s.add_instance(s.add_mesh(**CUBE, material_id=77), 1, 1, 3); s.build()
s.set_num_bands(5) | s.set_num_bands(0) | s.set_num_bands(-3)
s.set_num_bands(5); vk.simulate_forward_cpu(s, 2, 2, LAYERS, 300, 5)
s.upload_spectral_params(np.zeros(0, F)) | s.set_emitter(0, SUN, 2**31-1)
s.set_emitter(0, SUN, -1) | s.set_emitter(0, SUN, -5) | s.set_emitter(0, -UP, 8)
s.set_emitter(0, np.full(3, nan, F), 8) | s.set_emitter(0, np.full(3, 1e38, F), 8)
s.update_emitter_direction(np.zeros(3, F)) | s.update_emitter_direction(np.full(3, nan, F))
s.set_sky(1055) | s.set_sky(-1); vk.simulate_flux_cpu(s, 2, 2, 300, 2, 0.0)
s.set_directional_sky(100) | s.set_hw_sky(1050, 0, 0, 1) | s.set_hw_sky(1036, nan, 0.2, 0.93)
s.set_thermal_mode(True, [10000.0]) | s.set_sif_only_mode(True)
s.set_sensor(1, 4, 3, 4.0, 3.0, CAMERA, 0.0) | s.set_sensor(1, 4, 3, 4.0, 3.0, CAMERA, 180.0)
s.set_sensor(1, 4, 3, 4.0, 3.0, CAMERA, nan) | s.set_sensor(4, 4, 3, 4.0, 3.0, CAMERA, 60.0, 99)
s.set_sensor(3, 4, 0, 4.0, 3.0, CAMERA) | s.set_sensor(99, 4, 3, 4.0, 3.0, CAMERA)
s.set_sensor(0, 0, 0, 4.0, 3.0, CAMERA) | s.set_sensor(0, 4, 3, 0.0, 0.0, CAMERA)
s.set_sensor(0, 4, 3, 4.0, 3.0, np.full(16, nan, F)) | s.set_sensor(0, 4, 3, 4, 3, np.zeros(16, F))
s.set_sensor(0, 4, 3, 4.0, 3.0, CAMERA, 60.0, 0, True)
s.set_repetitive(3, 1e-30, 1e-30) | s.set_repetitive(3, nan, nan) | s.set_repetitive(3, inf, inf)
s.set_repetitive(3, -4.0, -4.0)""")] + """
ready: vk.list_vulkan_devices(); vk._vulkan_validation_message_count()
ready: vk.device_info(0)
ready: vk.device_info(-1)
ready: vk.device_info(2**31)
ready: vk.device_info(None)
ready: vk.VulkanContext(2**31-1)
ready: vk.VulkanContext(-2**31)
repeated: s.set_measurement_plane(nan)
repeated: s.set_measurement_plane(-inf)
thermal: s.add_instance(1, 1.0, 1.0, 2.0, 0.5); s.build(); SIM
!ready: s.set_repetitive(2**31-1, 4.0, 4.0)
!ready: s.set_repetitive(2**31-1, 4.0, 4.0); TRACE
!ready: s.set_sensor(0, 100000, 100000, 4.0, 3.0, CAMERA)
!ready: vk.simulate_cpu(s, 2**31-1, 2, boom(CallbackError('stop')))
!ready: vk.simulate_cpu(s, 1, 2, None, ['scattering_order'], 2**31-1)
!ready: vk.simulate_flux_cpu(s, 46340, 46340, 300, 2)
!ready: vk.simulate_forward_cpu(s, 46340, 46340, LAYERS, 300, 2)
!ready: vk.simulate_flux_cpu(s, 2, 2, 300, 2**31-1)
!ready: vk.make_ground_plane(23170.0, 23170.0, 0, 1.0)
!ready: vk.make_sphere(1.0, np.zeros(3, F), 16)
!ready: vk.make_cylinder(1.0, 2.0, 2**31-1)
ready: vk._test_turbid_domain_id_exhaustion()
ready: vk._set_turbid_commit_failure_embree(s, 'removal'); vk._build_turbid_domain_embree(s, treq())
ready: vk._build_turbid_domain_embree(s, treq()); vk._build_turbid_domain_embree(s, treq())
""".strip().splitlines()


def build_cases():
    """[(kind, statements, huge)]; huge ones ask for more than ASan's allocator allows."""
    rng, cases = random.Random(SEED), {}
    add = lambda kind, *steps, huge=False: cases.setdefault((kind, steps), huge)  # noqa: E731

    # Every argument of every entry gets PER_ARG values of its class, and every value of a
    # class goes to at least one argument.
    places = {}
    for target, params in ENTRIES.items():
        for i, (size, cls, _) in enumerate(params):
            places.setdefault(cls, []).append((target, i, size))
    for cls, where in places.items():
        vals = VALUES.get(cls, [])
        n = max(PER_ARG * len(where), len(vals)) if vals else 0
        draws = [v for _ in range(n) for v in rng.sample(vals, len(vals))]
        for (target, i, size), v in zip((where * n)[:n], draws):
            kinds = kinds_for(target, ["ready", "ready", "unbuilt", "empty", "thermal",
                                       "repeated"]) if target[0] == "s" else \
                kinds_for(target, ["ready", "repeated", "thermal"])
            if not kinds:
                continue
            kind = rng.choice(kinds)
            add(kind, call(target, {i: re.sub(r"\bV\b", ENTRIES[target][i][2], v)}), huge=size)
    for cls, kinds in ((vk.EmbreeSceneManager, ("empty", "unbuilt", "ready")),
                       (vk.VulkanSceneManager, ("vulkan-empty", "vulkan") * VULKAN_DEVICES)):
        for name in dir(cls):  # those without arguments
            if re.match(rf"{name}\(self: [\w.]+\) ->", getattr(cls, name).__doc__ or ""):
                for kind in kinds:
                    add(kind, f"s.{name}()")
    # Every callback meets every simulation, with work left after the first report.
    for target, (i, work) in {"vk.simulate_cpu": (1, "64"), "vk.simulate_brf_cpu": (2, "1048577"),
                              "vk.simulate_forward_cpu": (4, "1048577"),
                              "vk.simulate_flux_cpu": (3, "1048577"),
                              "s.simulate_backward": (0, "8")}.items():
        progress = [cls for _, cls, _ in ENTRIES[target]].index("p")
        reentry = ["lambda *a: s.simulate_backward(1, 1)"] if target[0] == "s" else []
        for cb in CALLBACKS + MUTATORS + reentry:
            kinds = kinds_for(target, ["ready", "thermal"])
            if kinds:
                add(rng.choice(kinds), call(target, {i: work, progress: cb}))
    for line in SEQUENCES:
        kind, steps = line.split(": ", 1)
        add(kind.lstrip("!"), *(USES.get(st, st) for st in steps.split("; ")),
            huge=kind[0] == "!")
    return [(kind, list(steps), huge) for (kind, steps), huge in cases.items()]


# ---- the worker ---------------------------------------------------------------------------

STATE = ("(scene_state(s), s.aabb(), s.band_wavelengths(), s.thermal_mode(), "
         "s.get_primitive_normals(), s.instance_triangle_counts())")
# A Vulkan scene is probed by its own tracer and closest hits.
VULKAN_PROBES = [STATE, "s.simulate_backward(1, 2)", "s.trace_closest(ORIGINS, DOWN)"]
PROBES = [STATE,
          "vk.simulate_cpu(s, spp=1, max_depth=2)",
          # 64 photons stay within one work chunk, so photon results are bit-exact.
          "vk.simulate_brf_cpu(s, UP, 64, 3)",
          "vk.simulate_forward_cpu(s, 2, 2, None, 64, 2, True, None, 0, 0.8, 3, 0)",
          "vk.simulate_flux_cpu(s, 2, 2, 64, 2, 0.8, 0, 3, 3, True)"]


def probes(ns):
    return VULKAN_PROBES if isinstance(ns["s"], vk.VulkanSceneManager) else PROBES


def snapshot(ns, phase=lambda text: None):
    """What a failed call must leave unchanged: the readable state and what tiny runs make
    of the scene, pickled so that floats (NaN included) compare bit for bit."""
    out = {}
    for probe in probes(ns):
        phase(probe)
        try:
            out[probe] = pickle.dumps(eval(probe, ns))
        except ACCEPTED as e:  # a refusal is a state to compare too; anything else is a fault
            out[probe] = (type(e).__name__, str(e))
    return out


def run_case(kind, steps, phase):
    """Runs one case; returns '' when it behaved, else what went wrong."""
    ns = namespace(make_scene(kind))
    try:
        for k, st in enumerate(steps, 1):
            before = snapshot(ns, lambda t: phase(f"snapshot before step {k}: {t}"))
            phase(f"step {k}: {st}")
            try:
                exec(st, ns)
            except ACCEPTED + (CallbackError,) as e:
                after = snapshot(ns, lambda t: phase(f"snapshot after step {k} raised: {t}"))
                changed = [p for p in probes(ns) if after[p] != before[p]]
                if changed and not any(m in st for m in MUTATORS):
                    return (f"step {k} raised {type(e).__name__}: {str(e)[:120]!r} but changed "
                            f"the scene: {' | '.join(changed)}")
                return ""
            except Exception as e:  # noqa: BLE001 - the type itself is the finding
                return f"step {k} raised {type(e).__name__}: {str(e)[:200]!r}"
        snapshot(ns, lambda t: phase(f"probe after the last step: {t}"))
        return ""
    finally:
        ns.clear()  # callbacks close over ns: free the scene now, inside this case


if __name__ == "__main__":
    import resource
    warnings.simplefilter("ignore")
    resource.setrlimit(resource.RLIMIT_CORE, (0, 0))
    if "libasan" not in os.environ.get("LD_PRELOAD", ""):
        # Allocations beyond this fail (MemoryError) instead of swamping the machine.
        resource.setrlimit(resource.RLIMIT_AS, (6 << 30, 6 << 30))
    out = os.fdopen(int(sys.argv[1]), "w", buffering=1)
    cases = build_cases()
    for i in map(int, sys.argv[2].split(",")):
        print(f"--- case {i}", file=sys.stderr, flush=True)  # where its stderr begins
        problem = run_case(*cases[i][:2], lambda t: out.write(f"P {i} {t}\n"))
        out.write(f"D {i} {problem}".replace("\n", " ") + "\n")
