"""Seeded fuzz cases over every public entry point of vesk_gpu, and the worker that runs
them in a child process for test_fuzz.py.

A case is a fresh scene of a named kind and a short list of calls: the last call is the
one under test, the earlier ones put the scene into the state it needs. Arguments are
labelled factories, rebuilt for every case, so each case prints as a readable call.

A call may return or raise an ordinary exception (ACCEPTED). When it raises, the scene
must be exactly as it was before the call: its readable state, and what a one-sample
render and tiny photon runs make of it. After the last call the same snapshot runs as a
probe, so a scene left broken by a call that returned shows up as a crash of that case.

Run as `fuzz_cases.py FD I,J,...`, this module runs those cases in order and reports on
file descriptor FD, one line per event:
    S i n        case i starts, with n bytes written to stderr so far
    P i text     case i enters a phase (a numbered call, a snapshot, the probe)
    D i text     case i is over; text is empty when it behaved, else what went wrong
The parent owns the clock: a worker that dies or goes quiet is blamed on the case and
phase it announced last.
"""
import math
import os
import random
import re
import struct
import sys
import warnings

import numpy as np

import vesk_gpu as vk
from conftest import scene_state, unit_cube
from test_physiology import leaf_request

F = np.float32
SEED = 20261121
# Random single- and two-argument mutations drawn on top of the covering ones.
EXTRA_MUTATIONS = 15
CASE_TIMEOUT = 10.0
HUGE_TIMEOUT = 20.0
ACCEPTED = (ValueError, TypeError, IndexError, KeyError, RuntimeError, OverflowError,
            MemoryError)
NAN, INF = float("nan"), float("inf")


class CallbackError(Exception):
    """Raised by misbehaving progress callbacks; may propagate out of the call."""


# ---- arguments ----------------------------------------------------------------------

class Arg:
    """A labelled argument factory: make(ctx) builds the value for one case."""

    def __init__(self, label, make, huge=False, mutates=False, raises=None):
        self.label, self.make, self.huge = label, make, huge
        self.mutates = mutates  # a callback that changes the scene on purpose
        self.raises = raises    # exception type name a callback may make the call raise


def lit(value, label=None, huge=False):
    return Arg(label or short(value), lambda c: value, huge)


def short(v):
    if isinstance(v, float):
        if v != v:
            return "nan"
        if math.isinf(v):
            return "inf" if v > 0 else "-inf"
        return repr(v)
    if isinstance(v, int) and not isinstance(v, bool):
        for name, x in (("2**31-1", 2**31 - 1), ("2**31", 2**31), ("-2**31", -2**31),
                        ("2**63", 2**63), ("-2**63", -2**63)):
            if v == x:
                return name
    return repr(v)


SCENE = Arg("scene", lambda c: c.scene)


class Param:
    def __init__(self, name, kind, valid, huge_all=False):
        self.name, self.kind, self.valid, self.huge_all = name, kind, valid, huge_all


class Call:
    """target is 'scene.method' or 'vk.function'; args are (name, Arg) pairs, passed
    positionally unless by_keyword."""

    def __init__(self, target, args=(), by_keyword=False, changed=None):
        self.target, self.args, self.by_keyword = target, list(args), by_keyword
        self.changed = changed  # names of the arguments that differ from working ones

    def text(self):
        shown = [(n, a) for n, a in self.args if len(self.args) <= 5 or self.changed is None
                 or n in self.changed or n == "scene"]
        more = ", ..." if len(shown) < len(self.args) else ""
        args = ", ".join(f"{n}={a.label}" if n else a.label for n, a in shown)
        return f"{self.target}({args}{more})"


class Case:
    def __init__(self, kind, calls, origin):
        self.kind, self.calls, self.origin = kind, calls, origin
        args = [a for call in calls for _, a in call.args]
        self.huge = any(a.huge for a in args)
        self.mutates = any(a.mutates for a in args)
        self.raises = {a.raises for a in args if a.raises}
        self.timeout = HUGE_TIMEOUT if self.huge else CASE_TIMEOUT

    def text(self):
        return f"[{self.kind} scene] " + "; ".join(c.text() for c in self.calls)


# ---- scenes ---------------------------------------------------------------------------

CUBE = unit_cube()
# ground (2), leaf x3 (6), sun (2), uniform sky (2), directional sky 2 x 16 x 32,
# Hosek-Wilkie 10 coefficients x 2 bands.
SPECTRAL = np.concatenate([[0.3, 0.5], [0.1, 0.4, 0.15, 0.45, 0.05, 0.35], [1000.0, 800.0],
                           [0.2, 0.1], np.linspace(0.01, 0.2, 1024), np.full(20, 0.5)]).astype(F)
DIR_SKY, HW_SKY = 12, 1036
SUN = np.array([0.3, 0.2, 0.93], F)
CAMERA = np.array([[1, 0, 0, 2], [0, 1, 0, 2], [0, 0, 1, 6], [0, 0, 0, 1]], F).ravel()
EYE12 = np.eye(3, 4, dtype=F).ravel()
KINDS = ("empty", "unbuilt", "ready", "repeated", "thermal")


def make_scene(kind):
    s = vk.EmbreeSceneManager()
    if kind == "empty":
        return s
    s.set_num_bands(2)
    s.upload_spectral_params(SPECTRAL.copy())
    s.add_material(0, 0, [0.4, 0.0])
    s.add_material(13, 2, [0.25, 0.2])
    # A 4 x 4 ground tile [0, 4]^2 with a leaf cube standing on it.
    s.add_instance(s.add_mesh(**vk.make_ground_plane(2.0, 2.0, 0, 2.0)), 2.0, 2.0, 0.0)
    s.add_instance(s.add_mesh(**CUBE, material_id=1), 2.0, 2.0, 0.6)
    s.set_emitter(0, SUN, 8)
    s.set_sky(10)
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


class Ctx:
    def __init__(self, kind):
        self.scene = make_scene(kind)


# ---- value classes ------------------------------------------------------------------------

FLOATS = [NAN, INF, -INF, 1e38, -1e38, 1e39, 1e30, 1e-40, 5e-324, 0.0, -0.0, -1.0]
INTS = [0, -1, -2**31, 2**31, -2**31 - 1, 2**63, 1000]


def scalar_variants(kind):
    if kind == "int":
        out = [lit(v) for v in INTS] + [lit(2**31 - 1, huge=True)]
        return out + [lit(v) for v in (1.5, NAN, None, "1", True)] + [
            Arg("int64(1)", lambda c: np.int64(1))]
    if kind == "int64":  # photon counts: only refusals are huge, never long runs
        return [lit(v) for v in (0, -1, -2**31, -2**63, 2**63, 2**64, 1.5, NAN, None, "100")]
    if kind == "float":
        return [lit(v) for v in FLOATS] + [lit(v) for v in (None, "1.0", 1j)] + [
            lit(10**400, "10**400"), Arg("float32(nan)", lambda c: np.float32("nan"))]
    if kind == "double":
        return [lit(v) for v in (NAN, INF, -INF, 1e300, -1e300, 5e-324, 0.0, -1.0, None, "x")]
    if kind == "complex":
        return [lit(v) for v in (complex(NAN, NAN), complex(INF, 0), complex(0, INF), 0j,
                                 -1 + 0j, 1e300 + 1e300j, 1e-320 + 0j, None, "1+2j")]
    if kind == "bool":
        return [lit(v) for v in (None, 2, "yes", NAN, [])] + [
            Arg("bool_(True)", lambda c: np.bool_(True)), Arg("object()", lambda c: object())]
    raise KeyError(kind)


def derived(p, text, fn, huge=False):
    return Arg(text, lambda c: fn(p.valid.make(c)), huge)


def set_first(a, v):
    a = np.array(a)
    if a.size:
        a.reshape(-1)[0] = v
    return a


JUNK = [lit(None), lit("abc"), lit(7), Arg("[[1, 'a'], None]", lambda c: [[1, "a"], None])]


def float_array_variants(p):
    out = [derived(p, f"full_like(valid, {short(v)})", lambda a, v=v: np.full_like(a, v))
           for v in (NAN, INF, -INF, 1e38, -1e38, 1e30, 1e-40, 0.0, -1.0)]
    out += [
        derived(p, "valid with [0] = nan", lambda a: set_first(a, NAN)),
        derived(p, "valid[:0]", lambda a: a[:0]),
        derived(p, "valid[..., :-1]", lambda a: a[..., :-1]),
        derived(p, "valid[None]", lambda a: a[None]),
        derived(p, "valid.ravel()", lambda a: a.ravel()),
        derived(p, "concat(valid, valid[:1])", lambda a: np.concatenate([a, a[:1]])),
        derived(p, "valid.astype(float64)", lambda a: a.astype(np.float64)),
        derived(p, "valid.astype(int32)", lambda a: a.astype(np.int32)),
        derived(p, "valid.astype(complex64)", lambda a: a.astype(np.complex64)),
        derived(p, "valid.astype(object)", lambda a: a.astype(object)),
        derived(p, "valid.astype(str)", lambda a: a.astype(str)),
        derived(p, "valid.T (strided)", lambda a: np.asfortranarray(a)),
        derived(p, "valid.tolist()", lambda a: a.tolist()),
    ]
    return out + JUNK


def int_array_variants(p):
    out = [derived(p, f"full_like(valid, {short(v)})", lambda a, v=v: np.full_like(a, v))
           for v in (-1, 2**31 - 1, -2**31)]
    return out + [
        derived(p, "valid + 1000", lambda a: a + 1000),
        derived(p, "valid.astype(float32) with [0] = nan",
                lambda a: set_first(a.astype(F), NAN)),
        derived(p, "valid.astype(int64) + 2**32", lambda a: a.astype(np.int64) + 2**32),
        derived(p, "valid[:0]", lambda a: a[:0]),
        derived(p, "valid[..., :-1]", lambda a: a[..., :-1]),
        derived(p, "valid[None]", lambda a: a[None]),
        derived(p, "valid.astype(object)", lambda a: a.astype(object)),
    ] + JUNK


def float_list_variants(p):
    vals = [[], [NAN] * 8, [INF] * 8, [1e38] * 8, [-1.0] * 8, ["a"], [None], [1j]]
    return [lit(v) for v in vals] + [
        lit([2**1024], "[2**1024]"), lit(list(map(float, range(100))), "[0.0, ..., 99.0]"),
        lit((0.3, 0.0)), Arg("array([0.3, 0.0])", lambda c: np.array([0.3, 0.0])),
        Arg("[[10000.0, 11000.0]]", lambda c: [[10000.0, 11000.0]]), lit(None), lit("ab")]


class Raising:
    def __init__(self, exc):
        self.exc = exc

    def __call__(self, *a):
        raise self.exc


def progress_variants(p):
    def mutate(label, fn):
        def make(c):
            def callback(*a):
                fn(c.scene)
            return callback
        return Arg(f"<callback that runs scene.{label}>", make, mutates=True)

    def recurse(c):
        def callback(*a):
            vk.simulate_cpu(c.scene, spp=1, max_depth=1)
        return callback

    def cube_instance(s):
        s.add_instance(s.add_mesh(**CUBE), 1.0, 1.0, 1.0)
        s.build()

    return [
        Arg("<callback raising CallbackError>", lambda c: Raising(CallbackError("stop")),
            raises="CallbackError"),
        Arg("<callback raising ValueError>", lambda c: Raising(ValueError("stop"))),
        Arg("<callback raising MemoryError>", lambda c: Raising(MemoryError())),
        Arg("<callback returning object()>", lambda c: lambda *a: object()),
        Arg("<callback returning 10**100>", lambda c: lambda *a: 10**100),
        Arg("<callback taking no arguments>", lambda c: lambda: None),
        Arg("<callback taking one argument>", lambda c: lambda done: None),
        Arg("<callback taking five arguments>", lambda c: lambda a, b, d, e, f: None),
        Arg("<callback running simulate_cpu on the scene>", recurse),
        lit(42), lit("progress"),
        mutate("upload_spectral_params(zeros(1))",
               lambda s: s.upload_spectral_params(np.zeros(1, F))),
        mutate("add_material(0, 0, [0.5])", lambda s: s.add_material(0, 0, [0.5])),
        mutate("build()", lambda s: s.build()),
        mutate("add_mesh(cube); add_instance(...); build()", cube_instance),
        mutate("clear_for_reuse()", lambda s: s.clear_for_reuse()),
        mutate("set_sensor(0, 64, 64, ...)",
               lambda s: s.set_sensor(0, 64, 64, 4.0, 4.0, CAMERA)),
        mutate("set_num_bands(7)", lambda s: s.set_num_bands(7)),
    ]


def outputs_variants(p):
    return [lit(v) for v in (["bogus"], [], [None], "radiance", [1], None, 42,
                             {"radiance": 1})] + [
        lit(["radiance"] * 100, "['radiance'] * 100"),
        lit(["radiance", "standard_error", "event_aov", "scattering_order"],
            "all four outputs")]


def scene_variants(p):
    return [lit(None), lit(42), lit("scene"),
            Arg("EmbreeSceneManager()", lambda c: vk.EmbreeSceneManager()),
            Arg("<unbuilt scene>", lambda c: make_scene("unbuilt"))]


def request_variants(p):
    def edit(label, energy=False, drop=(), **changes):
        def make(c):
            r = leaf_request(energy=energy)
            for k in drop:
                del r[k]
            r.update({k: (v(r[k]) if callable(v) else v) for k, v in changes.items()})
            return r
        base = "energy request" if energy else "request"
        return Arg(f"{base} with {label}", make)

    return [
        edit("no 'apar'", drop=["apar"]), edit("no 'tolerance'", drop=["tolerance"]),
        edit("no 'co2'", drop=["co2"]), edit("apar=None", apar=None),
        edit("apar.ravel()", apar=lambda a: a.ravel()),
        edit("apar of shape (0, 2)", apar=np.zeros((0, 2), F),
             temperature=np.zeros(0, F)),
        edit("apar=nan", apar=lambda a: np.full_like(a, NAN)),
        edit("apar=inf", apar=lambda a: np.full_like(a, INF)),
        edit("apar.astype(object)", apar=lambda a: a.astype(object)),
        edit("temperature=nan", temperature=lambda a: np.full_like(a, NAN)),
        edit("temperature=0", temperature=lambda a: np.zeros_like(a)),
        edit("temperature=-inf", temperature=lambda a: np.full_like(a, -INF)),
        edit("temperature[:3]", temperature=lambda a: a[:3]),
        edit("co2[:0]", co2=lambda a: a[:0]),
        edit("wind=0, pressure=0", wind=lambda a: a * 0, pressure=lambda a: a * 0),
        edit("vcmax25=nan", vcmax25=lambda a: np.full_like(a, NAN)),
        edit("relative_humidity=-1e38", relative_humidity=lambda a: np.full_like(a, -1e38)),
        edit("max_iterations=-1", max_iterations=-1),
        edit("max_iterations=0", max_iterations=0),
        edit("max_iterations=2**31", max_iterations=2**31),
        edit("max_iterations='80'", max_iterations="80"),
        edit("tolerance=nan", tolerance=NAN), edit("tolerance=-1", tolerance=-1.0),
        edit("tolerance=0", tolerance=0.0),
        edit("no 'leaf_width'", energy=True, drop=["leaf_width"]),
        edit("absorbed_shortwave=nan", energy=True,
             absorbed_shortwave=lambda a: np.full_like(a, NAN)),
        edit("leaf_width=0", energy=True, leaf_width=lambda a: a * 0),
        edit("sidedness=0, stomata_sides=-1", energy=True, sidedness=lambda a: a * 0,
             stomata_sides=lambda a: -a),
        edit("emissivity=inf", energy=True, emissivity=lambda a: np.full_like(a, INF)),
        edit("dynamic_energy_balance='yes'", energy=True, dynamic_energy_balance="yes"),
        lit([], "[]"), lit(None),
    ]


def variants(p):
    kind = p.kind
    if kind in ("int", "int64", "float", "double", "complex", "bool"):
        out = scalar_variants(kind)
    elif kind == "farray":
        out = float_array_variants(p)
    elif kind == "iarray":
        out = int_array_variants(p)
    else:
        out = {"flist": float_list_variants, "progress": progress_variants,
               "outputs": outputs_variants, "scene": scene_variants,
               "request": request_variants}[kind](p)
    if p.huge_all:
        for a in out:
            a.huge = True
    return out


# ---- the public surface, each entry with arguments that work ------------------------------

def arr(label, make):
    return Arg(label, make)


def per_prim(label, value, per=1):
    return Arg(f"full(n_primitives{'*' + str(per) if per > 1 else ''}, {value})",
               lambda c: np.full(c.scene.n_primitives() * per, value, F))


def per_inst(value, per=1):
    return Arg(f"full(num_instances{'*' + str(per) if per > 1 else ''}, {value})",
               lambda c: np.full(c.scene.num_instances() * per, value, F))


def sif_field(per, value, dtype=F):
    return Arg(f"full(num_instances*{per}, {value})",
               lambda c: np.full(c.scene.num_instances() * per, value, dtype))


P = Param
ORIGINS = arr("4 origins at z=5", lambda c: np.array(
    [[1.0, 1.0, 5.0], [2.0, 2.0, 5.0], [3.0, 1.5, 5.0], [9.0, 9.0, 5.0]], F))
DOWN = arr("4 x (0, 0, -1)", lambda c: np.tile(np.array([0.0, 0.0, -1.0], F), (4, 1)))
SOIL = arr("soil(12)", lambda c: np.array([0.3, 0.2, 0.25, 0.0, 1.0, 1.5, 0.0, 295.0, 290.0,
                                            1.0, 0.01, 0.0], F))
TRUNK = arr("trunk(7)", lambda c: np.array([0.15, 6.0, 0.4, 295.0, 0.0, 0.0, 1.0], F))
COSINES = arr("cos(0..70 deg)", lambda c: np.cos(np.radians(np.arange(0, 80, 10))).astype(F))
TO_TRUNK = arr("2 directions to trunk", lambda c: np.array([[0.7, 0.0, -0.714],
                                                             [0.5, 0.4, -0.768]], F))
TO_GROUND = arr("2 directions to ground", lambda c: np.array([[0.7, 0.0, -0.714],
                                                               [-0.2, 0.6, -0.774]], F))
UP2 = arr("2 x (0, 0, 1)", lambda c: np.tile(np.array([0.0, 0.0, 1.0], F), (2, 1)))
BRF_DIRS = arr("[0, 0, 1, 0.5, 0.2, 0.84]", lambda c: np.array([0, 0, 1, 0.5, 0.2, 0.84], F))
NONE = lit(None)

SCENE_METHODS = {
    "add_mesh": [P("vertices", "farray", arr("cube.vertices", lambda c: CUBE["vertices"].copy())),
                 P("normals", "farray", arr("zeros((0, 3))", lambda c: np.zeros((0, 3), F))),
                 P("indices", "iarray", arr("cube.indices", lambda c: CUBE["indices"].copy())),
                 P("material_id", "int", lit(1))],
    "add_instance": [P("mesh_id", "int", lit(0)), P("x", "float", lit(1.0)),
                     P("y", "float", lit(1.0)), P("z", "float", lit(0.5)),
                     P("scale", "float", lit(0.5))],
    "add_instance_xform": [P("mesh_id", "int", lit(1)),
                           P("xform", "farray", arr("eye(3, 4).ravel()", lambda c: EYE12.copy()))],
    "add_instances_xform": [P("mesh_id", "int", lit(1)),
                            P("xforms", "farray", arr("tile(eye(3, 4).ravel(), (2, 1))",
                                                      lambda c: np.tile(EYE12, (2, 1))))],
    "update_instance_transform": [
        P("id", "int", lit(1)),
        P("xform", "farray", arr("eye(3, 4).ravel()", lambda c: EYE12.copy()))],
    "set_populate_primitive_soa": [P("enabled", "bool", lit(True))],
    "trace_closest": [P("origins", "farray", ORIGINS), P("directions", "farray", DOWN),
                      P("t_min", "float", lit(1e-4)), P("t_max", "float", lit(1e30))],
    "set_num_bands": [P("n", "int", lit(2))],
    "add_material": [P("type", "int", lit(0)), P("offset", "int", lit(0)),
                     P("scalar_params", "flist", lit([0.4, 0.0]))],
    "upload_spectral_params": [P("values", "farray", arr("SPECTRAL", lambda c: SPECTRAL.copy()))],
    "set_emitter": [P("type", "int", lit(0)),
                    P("direction", "farray", arr("SUN", lambda c: SUN.copy())),
                    P("offset", "int", lit(8))],
    "update_emitter_direction": [P("direction", "farray",
                                   arr("[0, 0, 1]", lambda c: np.array([0, 0, 1], F)))],
    "set_sensor": [P("type", "int", lit(0)), P("width", "int", lit(4)),
                   P("height", "int", lit(3)), P("ortho_w", "float", lit(4.0)),
                   P("ortho_h", "float", lit(3.0)),
                   P("cam_xform", "farray", arr("CAMERA", lambda c: CAMERA.copy())),
                   P("fov", "float", lit(60.0)), P("projection_type", "int", lit(0)),
                   P("terrain_following", "bool", lit(False))],
    "set_sky": [P("spectral_offset", "int", lit(10))],
    "set_directional_sky": [P("spectral_offset", "int", lit(DIR_SKY))],
    "set_hw_sky": [P("spectral_offset", "int", lit(HW_SKY)), P("sun_x", "float", lit(0.3)),
                   P("sun_y", "float", lit(0.2)), P("sun_z", "float", lit(0.93))],
    "set_thermal_mode": [P("enabled", "bool", lit(True)),
                         P("wavelengths", "flist", lit([10000.0, 11000.0]))],
    "set_sif_only_mode": [P("enabled", "bool", lit(True))],
    "set_repetitive": [P("num_repetitions", "int", lit(3)),
                       P("scene_x_size", "float", lit(4.0)),
                       P("scene_y_size", "float", lit(4.0))],
    "set_measurement_plane": [P("height", "float", lit(1.0))],
    "set_primitive_emissivities": [P("emissivities", "farray", per_prim("e", 0.9))],
    "set_primitive_temperatures": [P("temperatures", "farray", per_prim("t", 305.0))],
    "set_primitive_sif_spectra": [P("spectra", "farray", per_prim("s", 0.01, 2)),
                                  P("n_sif_bands", "int", lit(2))],
    "set_instance_turbid_thermal_state": [
        P("temperature_sunlit", "farray", per_inst(300.0)),
        P("temperature_shaded", "farray", per_inst(290.0)),
        P("sunlit_fraction", "farray", per_inst(0.5)),
        P("emissivity", "farray", per_inst(0.97))],
    "set_instance_sif_spectra": [P("spectra", "farray", per_inst(0.01, 2)),
                                 P("n_sif_bands", "int", lit(2))],
    "set_instance_sif_source_fields": [
        P("spatial_spectra", "farray", sif_field(16, 0.01)),
        P("orientation_spectra", "farray", sif_field(12, 0.01)),
        P("joint_spectra", "farray", sif_field(96, 0.01)),
        P("direct_joint_spectra", "farray", sif_field(96, 0.01)),
        P("bounds_min", "farray", sif_field(3, 0.0)),
        P("bounds_max", "farray", sif_field(3, 4.0)),
        P("grid_dims", "iarray", sif_field(3, 2, np.int32)),
        P("n_sif_bands", "int", lit(2)), P("spatial_cell_stride", "int", lit(8)),
        P("orientation_theta_bins", "int", lit(2)),
        P("orientation_phi_bins", "int", lit(3))],
}

FUNCTIONS = {
    "simulate_cpu": [P("scene", "scene", SCENE), P("spp", "int", lit(1)),
                     P("max_depth", "int", lit(2)), P("progress", "progress", NONE),
                     P("outputs", "outputs", lit(["radiance"])),
                     P("max_output_order", "int", lit(0))],
    "simulate_brf_cpu": [P("scene", "scene", SCENE), P("directions", "farray", BRF_DIRS),
                         P("num_photons", "int64", lit(200)), P("max_depth", "int", lit(4)),
                         P("progress", "progress", NONE)],
    "simulate_forward_cpu": [
        P("scene", "scene", SCENE), P("nx", "int", lit(2)), P("ny", "int", lit(2)),
        P("layer_heights", "farray", arr("[0, 1, 2.5]", lambda c: np.array([0, 1, 2.5], F))),
        P("num_photons", "int64", lit(300)), P("num_bands", "int", lit(2)),
        P("per_leaf", "bool", lit(True)), P("brf_directions", "farray", BRF_DIRS),
        P("num_brf_dirs", "int", lit(2)), P("prob_sun", "float", lit(0.7)),
        P("max_depth", "int", lit(4)), P("terrain_instance_id", "int", lit(0)),
        P("progress", "progress", NONE)],
    "simulate_flux_cpu": [
        P("scene", "scene", SCENE), P("nx", "int", lit(2)), P("ny", "int", lit(2)),
        P("num_photons", "int64", lit(300)), P("num_bands", "int", lit(2)),
        P("prob_sun", "float", lit(0.7)), P("max_bounces", "int", lit(0)),
        P("max_depth", "int", lit(4)), P("rr_depth", "int", lit(3)),
        P("decompose", "bool", lit(True)), P("progress", "progress", NONE)],
    "solve_physiology_cpu": [P("scene", "scene", SCENE),
                             P("request", "request", Arg("request", lambda c: leaf_request()))],
    "_evaluate_microwave_soil": [P("frequency", "float", lit(1.4e9)),
                                 P("parameters", "farray", SOIL),
                                 P("cosines", "farray", COSINES), P("active", "bool", lit(True))],
    "_evaluate_microwave_soil_reflectivity": [
        P("frequency", "float", lit(5.3e9)), P("parameters", "farray", SOIL),
        P("cosines", "farray", COSINES), P("allow_hallikainen", "bool", lit(True))],
    "_evaluate_microwave_trunk": [P("frequency", "float", lit(1.4e9)),
                                  P("parameters", "farray", TRUNK),
                                  P("cosines", "farray", COSINES)],
    "_evaluate_microwave_trunk_ground": [
        P("frequency", "float", lit(1.4e9)), P("soil_parameters", "farray", SOIL),
        P("trunk_parameters", "farray", TRUNK),
        P("directions_to_trunk", "farray", TO_TRUNK),
        P("directions_to_ground", "farray", TO_GROUND), P("ground_normals", "farray", UP2)],
    "_microwave_cylinder_amplitude": [
        P("frequency", "double", lit(1.4e9)), P("radius", "double", lit(0.1)),
        P("permittivity", "complex", lit(8 + 2.5j)),
        P("elevation_incident", "double", lit(0.3)),
        P("elevation_scattered", "double", lit(0.2)), P("phi", "double", lit(0.7))],
    # Their sizes decide how much is allocated: any odd value may be a huge request.
    "make_ground_plane": [P("half_w", "float", lit(5.0), True),
                          P("half_h", "float", lit(5.0), True),
                          P("material_id", "int", lit(0)),
                          P("max_tri_edge", "float", lit(2.0), True)],
    "make_sphere": [P("radius", "float", lit(1.0)),
                    P("center", "farray", arr("zeros(3)", lambda c: np.zeros(3, F))),
                    P("subdivisions", "int", lit(2), True)],
    "make_cylinder": [P("radius", "float", lit(1.0)), P("height", "float", lit(2.0)),
                      P("segments", "int", lit(8), True)],
}

ZERO_ARG_MUTATORS = ["build", "build_reuse_gas", "build_reuse_geometry", "clear_for_reuse",
                     "refit_ias", "refit_instances", "clear_primitive_temperatures",
                     "clear_primitive_sif_spectra", "clear_instance_turbid_thermal_state",
                     "clear_instance_sif_spectra", "clear_instance_sif_source_fields"]
SIMULATIONS = ["simulate_cpu", "simulate_brf_cpu", "simulate_forward_cpu", "simulate_flux_cpu"]


def entry_call(name, override=None):
    """The entry with working arguments, some replaced by override {param name: Arg}."""
    override = override or {}
    if name in SCENE_METHODS:
        params, target = SCENE_METHODS[name], f"scene.{name}"
    else:
        params, target = FUNCTIONS[name], f"vk.{name}"
    return Call(target, [(p.name, override.get(p.name, p.valid)) for p in params],
                changed=set(override))


def call(target, *args, **kw):
    """A fixed call: plain values become literals, Args stay."""
    wrap = lambda v: v if isinstance(v, Arg) else lit(v)
    return Call(target, [(None, wrap(a)) for a in args] + [(k, wrap(v)) for k, v in kw.items()],
                by_keyword=bool(kw))


def stop_run(*args):
    raise RuntimeError("stopped by the progress callback")


def sim(name="simulate_cpu", **override):
    return entry_call(name, {k: (v if isinstance(v, Arg) else lit(v)) for k, v in override.items()})


def sequences():
    """States reached by legal-looking call orders, then used."""
    out = []

    def add(kind, *calls):
        out.append(Case(kind, list(calls), "sequence"))

    trace = entry_call("trace_closest")
    for kind in ("empty", "unbuilt"):
        for use in SIMULATIONS + ["trace_closest"]:
            add(kind, call("scene.build_reuse_gas"), entry_call(use))
        add(kind, call("scene.build_reuse_geometry"), entry_call("simulate_forward_cpu"))
    for use in ("simulate_cpu", "simulate_forward_cpu", "trace_closest"):
        add("empty", call("scene.build"), entry_call(use))
        add("ready", call("scene.clear_for_reuse"), entry_call(use))
        add("ready", call("scene.clear_for_reuse"), call("scene.build_reuse_gas"),
            entry_call(use))
    # Rays and light the tracer must refuse or survive, not hand to Embree as they are.
    full = lambda v, n: Arg(f"full_like(valid, {short(v)})",
                            lambda c: np.full((4, 3) if n is None else n, v, F))
    for v in (NAN, INF, 1e38, -1e38, 1e-40):
        add("ready", entry_call("trace_closest", {"origins": full(v, None)}))
    for v in (NAN, -INF, 0.0, 1e30, 1e-40):
        add("ready", entry_call("trace_closest", {"directions": full(v, None)}))
    for t_min, t_max in ((NAN, 1e30), (-INF, 1e30), (1e38, 1e30), (1e-4, NAN), (1e-4, -1.0),
                         (1e-4, INF), (1e-4, 0.0)):
        add("ready", entry_call("trace_closest", {"t_min": lit(t_min), "t_max": lit(t_max)}))
    for v in (NAN, INF, 1e38):
        add("ready", entry_call("set_sensor", {"cam_xform": full(v, 16)}))
        add("ready", entry_call("set_emitter", {"direction": full(v, 3)}))
    add("ready", entry_call("update_emitter_direction", {"direction": full(NAN, 3)}))
    add("ready", entry_call("set_hw_sky", {"sun_x": lit(NAN)}))
    for x, scale in ((1.0, NAN), (INF, 0.5), (1.0, 1e38), (1.0, 0.0)):
        add("ready", call("scene.add_instance", 1, x, 1.0, 0.5, scale), call("scene.build"))
    # Geometry added after build(), used without rebuilding.
    add("ready", call("scene.add_instance", 1, 1.0, 1.0, 2.0, 0.5), sim())
    add("ready", call("scene.add_instance", 1, 1.0, 1.0, 2.0, 0.5), trace)
    add("ready", call("scene.add_instance", 1, 1.0, 1.0, 2.0, 0.5),
        sim("simulate_forward_cpu", per_leaf=True))
    add("thermal", call("scene.add_instance", 1, 1.0, 1.0, 2.0, 0.5), call("scene.build"), sim())
    add("ready", call("scene.update_instance_transform", 0, Arg(
        "full(12, nan)", lambda c: np.full(12, NAN, F))), call("scene.refit_ias"), sim())
    add("ready", call("scene.update_instance_transform", 1, Arg(
        "full(12, 1e38)", lambda c: np.full(12, 1e38, F))), call("scene.refit_ias"), trace)
    add("unbuilt", call("scene.update_instance_transform", 0, lit(EYE12, "eye(3, 4).ravel()")),
        call("scene.build"), trace)
    # Spectral addresses that the scene settings no longer fit.
    add("ready", call("scene.set_num_bands", 5), sim())
    add("ready", call("scene.set_num_bands", 5), sim("simulate_forward_cpu", num_bands=5))
    add("ready", call("scene.set_num_bands", 0), sim())
    add("ready", call("scene.set_num_bands", -3), sim("simulate_brf_cpu"))
    add("ready", call("scene.upload_spectral_params", Arg("zeros(0)", lambda c: np.zeros(0, F))),
        sim())
    add("ready", call("scene.upload_spectral_params", Arg("zeros(0)", lambda c: np.zeros(0, F))),
        sim("simulate_flux_cpu"))
    add("ready", call("scene.set_emitter", 0, lit(SUN, "SUN"), 2**31 - 1), sim())
    add("ready", call("scene.set_emitter", 0, lit(SUN, "SUN"), -5), sim("simulate_brf_cpu"))
    add("ready", call("scene.set_sky", 1055), sim())
    add("ready", call("scene.set_directional_sky", 100), sim())
    add("ready", call("scene.set_hw_sky", 1050, 0.0, 0.0, 1.0), sim())
    add("ready", call("scene.set_sky", -1), sim("simulate_flux_cpu", prob_sun=0.0))
    add("ready", call("scene.add_material", 0, 5000, [0.5]), call("scene.add_mesh", **{
        "vertices": Arg("cube.vertices", lambda c: CUBE["vertices"].copy()),
        "normals": Arg("zeros((0, 3))", lambda c: np.zeros((0, 3), F)),
        "indices": Arg("cube.indices", lambda c: CUBE["indices"].copy()),
        "material_id": lit(2)}), call("scene.add_instance", 2, 1.0, 1.0, 3.0, 0.5),
        call("scene.build"), sim())
    add("ready", call("scene.add_mesh", **{
        "vertices": Arg("cube.vertices", lambda c: CUBE["vertices"].copy()),
        "normals": Arg("zeros((0, 3))", lambda c: np.zeros((0, 3), F)),
        "indices": Arg("cube.indices", lambda c: CUBE["indices"].copy()),
        "material_id": lit(77)}), call("scene.add_instance", 2, 1.0, 1.0, 3.0, 0.5),
        call("scene.build"), sim("simulate_forward_cpu"))
    add("ready", call("scene.set_thermal_mode", True, [10000.0]), sim())
    add("ready", call("scene.set_sif_only_mode", True), sim())
    add("ready", call("scene.set_instance_sif_spectra", per_inst(0.01, 2), 2),
        call("scene.add_instance", 1, 1.0, 1.0, 2.0, 0.5), call("scene.build"), sim())
    # Sensors the renderer must cope with or refuse.
    for args in [(1, 4, 3, 4.0, 3.0, CAMERA, 0.0), (1, 4, 3, 4.0, 3.0, CAMERA, 180.0),
                 (1, 4, 3, 4.0, 3.0, CAMERA, NAN), (4, 4, 3, 4.0, 3.0, CAMERA, 60.0, 99),
                 (3, 4, 0, 4.0, 3.0, CAMERA), (99, 4, 3, 4.0, 3.0, CAMERA),
                 (0, 0, 0, 4.0, 3.0, CAMERA), (0, 4, 3, 0.0, 0.0, CAMERA),
                 (0, 4, 3, 4.0, 3.0, np.zeros(16, F))]:
        label = lambda a: "CAMERA" if a is CAMERA else "zeros(16)" if isinstance(a, np.ndarray) \
            else None
        add("ready", call("scene.set_sensor", *[lit(a, label(a)) for a in args]), sim())
    add("ready", call("scene.set_sensor", 0, 4, 3, 4.0, 3.0, lit(CAMERA, "CAMERA"), 60.0, 0, True),
        sim())
    # Requests far beyond any machine: they must be refused up front.
    huge = lambda v: lit(v, huge=True)
    add("ready", call("scene.set_sensor", 0, huge(100000), huge(100000), 4.0, 3.0,
                      lit(CAMERA, "CAMERA")), sim())
    add("ready", call("scene.set_sensor", 0, huge(100000), huge(100000), 4.0, 3.0,
                      lit(CAMERA, "CAMERA")), sim("simulate_flux_cpu"))
    # Billions of samples cost no memory up front: the run starts, and the callback ends it.
    add("ready", sim(spp=huge(2**31 - 1), progress=lit(stop_run, "<raises on its first call>")))
    add("ready", sim(max_output_order=huge(2**31 - 1),
                     outputs=lit(["scattering_order"])))
    add("ready", sim("simulate_flux_cpu", nx=huge(46340), ny=huge(46340)))
    add("ready", sim("simulate_forward_cpu", nx=huge(46340), ny=huge(46340)))
    add("ready", sim("simulate_flux_cpu", num_bands=huge(2**31 - 1)))
    for use in ("simulate_cpu", "simulate_forward_cpu", "simulate_flux_cpu", "trace_closest"):
        add("ready", call("scene.set_repetitive", huge(2**31 - 1), 4.0, 4.0), entry_call(use))
    add("ready", call("vk.make_ground_plane", huge(23170.0), huge(23170.0), 0, huge(1.0)))
    add("ready", call("vk.make_sphere", 1.0, lit(np.zeros(3, F), "zeros(3)"), huge(16)))
    add("ready", call("vk.make_cylinder", 1.0, 2.0, huge(2**31 - 1)))
    # Tiles too small, odd or not finite for the photon grids.
    for x in (1e-30, NAN, INF, -4.0):
        add("ready", call("scene.set_repetitive", 3, x, x), sim("simulate_flux_cpu"))
    add("repeated", call("scene.set_measurement_plane", NAN), sim("simulate_forward_cpu"))
    add("repeated", call("scene.set_measurement_plane", -INF), sim("simulate_flux_cpu"))
    add("ready", call("scene.update_emitter_direction", Arg("zeros(3)", lambda c: np.zeros(3, F))),
        sim("simulate_brf_cpu"))
    add("ready", call("scene.set_emitter", 0, Arg("[0, 0, -1]", lambda c: np.array([0, 0, -1], F)),
                      8), sim("simulate_forward_cpu"))
    return out


def draw_mutations(rng, extra):
    """One case per argument of every entry, then every value class at least once, then
    `extra` random single or double mutations."""
    entries = list(SCENE_METHODS) + list(FUNCTIONS)
    table = {e: (SCENE_METHODS.get(e) or FUNCTIONS[e]) for e in entries}
    kind_of = lambda e: (rng.choice(["ready", "ready", "unbuilt", "empty", "thermal", "repeated"])
                         if e in SCENE_METHODS else rng.choice(["ready", "repeated", "thermal"]))
    cases, seen = [], set()

    def add(e, pairs, origin):
        key = (e,) + tuple((p.name, a.label) for p, a in pairs)
        if key in seen:
            return
        seen.add(key)
        cases.append(Case(kind_of(e), [entry_call(e, {p.name: a for p, a in pairs})], origin))

    for e in entries:
        for p in table[e]:
            if p.kind != "progress":
                add(e, [(p, rng.choice(variants(p)))], "argument")
    by_kind = {}
    for e in entries:
        for p in table[e]:
            by_kind.setdefault(p.kind, []).append((e, p))
    covered = {(p.kind, a.label) for case in cases for call in case.calls
               for p in table[call.target.split(".", 1)[1]] for n, a in call.args
               if n == p.name and a is not p.valid}
    for kind, owners in by_kind.items():
        if kind == "progress":
            continue
        e, p = owners[0]
        for i, v in enumerate(variants(p)):
            if (kind, v.label) not in covered:
                e, p = rng.choice(owners)
                add(e, [(p, variants(p)[i])], "value class")
    flat = [(e, p) for e in entries for p in table[e] if p.kind != "progress"]
    budget = len(cases) + extra
    while len(cases) < budget:
        e, p = rng.choice(flat)
        picks = [(p, rng.choice(variants(p)))]
        if rng.random() < 0.5 and len(table[e]) > 1:
            q = rng.choice([q for q in table[e] if q is not p and q.kind != "progress"])
            picks.append((q, rng.choice(variants(q))))
        add(e, picks, "random")
    return cases


def build_cases(seed=SEED, extra=EXTRA_MUTATIONS):
    rng = random.Random(seed)
    cases = sequences()
    for kind in ("empty", "unbuilt", "ready"):
        for name in ZERO_ARG_MUTATORS:
            cases.append(Case(kind, [call(f"scene.{name}")], "state"))
    # Work left after the first report (photon rounds are a million; sample passes run on
    # while the caller reports), so that work after a callback changed the scene is
    # exercised too. Every scene-changing callback meets every simulation.
    more = {"simulate_cpu": {"spp": lit(64)}}
    for name in SIMULATIONS:
        params = FUNCTIONS[name]
        prog = next(p for p in params if p.kind == "progress")
        vs = variants(prog)
        if name != "simulate_cpu":
            vs = [v for v in vs if v.mutates] + rng.sample([v for v in vs if not v.mutates], 4)
        for v in vs:
            over = dict(more.get(name, {"num_photons": lit(1_000_001)}), progress=v)
            cases.append(Case(rng.choice(["ready", "thermal"]), [entry_call(name, over)],
                              "callback"))
    return cases + draw_mutations(rng, extra)


# ---- snapshots --------------------------------------------------------------------------

MUTATOR_PREFIXES = ("build", "refit", "clear", "set_", "add_", "update_", "upload_", "reset",
                    "release", "trace")


def readers():
    """Every argument-free method that only reads: found from the signatures, so a new
    getter is compared without being listed here."""
    out = []
    for name in dir(vk.EmbreeSceneManager):
        if name.startswith("_") or name.startswith(MUTATOR_PREFIXES):
            continue
        doc = (getattr(vk.EmbreeSceneManager, name).__doc__ or "").lstrip()
        if re.match(rf"{name}\(self: [\w.]+\) ->", doc):
            out.append(name)
    return out


READERS = readers()


def canon(x):
    """A comparable value: bit-exact for floats (NaN included), arrays by dtype, shape, bytes."""
    if isinstance(x, np.ndarray):
        return ("array", x.dtype.str, x.shape, x.tobytes())
    if isinstance(x, dict):
        return ("dict", tuple(sorted((str(k), canon(v)) for k, v in x.items())))
    if isinstance(x, (list, tuple)):
        return (type(x).__name__, tuple(canon(v) for v in x))
    if isinstance(x, (float, np.floating)):
        return ("float", struct.pack("<d", float(x)))
    return x


def outcome(fn):
    try:
        return ("ok", canon(fn()))
    except Exception as e:  # noqa: BLE001 - any failure is a state to compare
        return ("raise", type(e).__name__, str(e))


UP = np.array([0, 0, 1], F)


def snapshot(scene, phase=None):
    """What a failed call must leave unchanged. 64 photons stay within one work chunk, so
    the photon results are bit-exact from run to run. phase(text) announces each use."""
    phase = phase or (lambda text: None)
    st = {"scene_state": outcome(lambda: scene_state(scene))}
    for name in READERS:
        st[name] = outcome(getattr(scene, name))
    uses = {
        "render": ("vk.simulate_cpu(scene, spp=1, max_depth=2)",
                   lambda: vk.simulate_cpu(scene, spp=1, max_depth=2)),
        "brf": ("vk.simulate_brf_cpu(scene, [0, 0, 1], 64, 3)",
                lambda: vk.simulate_brf_cpu(scene, UP, 64, 3)),
        "forward": ("vk.simulate_forward_cpu(scene, 2, 2, None, 64, 2, True, None, 0, 0.8, 3, 0)",
                    lambda: vk.simulate_forward_cpu(scene, 2, 2, None, 64, 2, True, None, 0,
                                                    0.8, 3, 0)),
        "flux": ("vk.simulate_flux_cpu(scene, 2, 2, 64, 2, 0.8, 0, 3, 3, True)",
                 lambda: vk.simulate_flux_cpu(scene, 2, 2, 64, 2, 0.8, 0, 3, 3, True)),
    }
    for key, (text, fn) in uses.items():
        phase(text)
        st[key] = outcome(fn)
    return st


# ---- the worker ---------------------------------------------------------------------------

def run_case(case, fresh, phase):
    """Runs one case; returns '' when it behaved, else what went wrong."""
    ctx = Ctx(case.kind)
    before = fresh[case.kind]
    for k, c in enumerate(case.calls, 1):
        if k > 1:
            before = snapshot(ctx.scene, lambda t: phase(f"snapshot before call {k}: {t}"))
        phase(f"call {k} {c.target}")
        fn = getattr(ctx.scene, c.target[6:]) if c.target.startswith("scene.") else \
            getattr(vk, c.target[3:])
        pos = [a.make(ctx) for n, a in c.args if not (c.by_keyword and n)]
        kw = {n: a.make(ctx) for n, a in c.args if c.by_keyword and n}
        try:
            fn(*pos, **kw)
        except ACCEPTED as e:
            after = snapshot(ctx.scene, lambda t: phase(f"snapshot after call {k} raised: {t}"))
            if after != before and not case.mutates:
                changed = sorted(key for key in before if before[key] != after.get(key))
                return (f"call {k} raised {type(e).__name__}: {str(e)[:120]!r} but changed "
                        f"the scene: {', '.join(changed)}")
            return ""
        except Exception as e:  # noqa: BLE001 - the type itself is the finding
            if type(e).__name__ in case.raises:
                return ""
            return f"call {k} raised {type(e).__name__}: {str(e)[:200]!r}"
    snapshot(ctx.scene, lambda t: phase(f"probe after the last call returned: {t}"))
    return ""


def stderr_offset():
    try:
        return os.lseek(2, 0, os.SEEK_CUR)
    except OSError:  # a terminal or a pipe
        return 0


def worker(fd, indices):
    import resource
    warnings.simplefilter("ignore")
    resource.setrlimit(resource.RLIMIT_CORE, (0, 0))
    if "libasan" not in os.environ.get("LD_PRELOAD", ""):
        # Allocations beyond this fail (MemoryError) instead of swamping the machine.
        resource.setrlimit(resource.RLIMIT_AS, (6 << 30, 6 << 30))
    out = os.fdopen(fd, "w", buffering=1)
    cases = build_cases()
    fresh = {kind: snapshot(make_scene(kind)) for kind in KINDS}
    for i in indices:
        sys.stderr.flush()
        out.write(f"S {i} {stderr_offset()}\n")
        problem = run_case(cases[i], fresh, lambda text: out.write(f"P {i} {text}\n"))
        out.write(f"D {i} {problem}\n".replace("\n", " ").rstrip(" ") + "\n")
    out.close()


if __name__ == "__main__":
    worker(int(sys.argv[1]), [int(i) for i in sys.argv[2].split(",") if i])
