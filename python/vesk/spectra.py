"""Named spectral blocks and the materials that read them.

Every spectrum of a scene lives in one flat float32 buffer: reflectances, the sun's
irradiance, the sky's radiance. Each entry is one or more consecutive blocks of
n_bands floats, and materials, sun and sky point at their entry by its offset (the
index of its first float). `Spectra` keeps that bookkeeping: it names the entries,
uploads the buffer to the scene after every change, and records the band wavelengths.

Layouts read by the materials (blocks in this order, each n_bands long):
  Lambertian (type 0)  reflectance
  leaf (type 13)       front reflectance, back reflectance, transmittance
  RPV (type 1)         rho0 (stored / pi, see rpv), k, Theta, rho_c
Sun: irradiance at normal incidence, W m-2 nm-1. Uniform sky: radiance, W m-2 sr-1 nm-1.

Physical checks: reflectances and transmittances must lie in [0, 1], and so must
reflectance + transmittance on each side of a leaf (a leaf cannot scatter more than it
receives); a sun below the horizon is refused. Each refusal is a ValueError that names
the entry.
"""
import numpy as np

LAMBERTIAN, RPV, LEAF = 0, 1, 13


class Spectra:
    """The spectral buffer of `scene`, built from named entries.

        spectra = Spectra(scene, wavelengths_nm=[650, 550, 470])
        scene.set_emitter(0, sun_direction(30, 180), spectra.add("sun", [1.55, 1.80, 1.95]))
        soil = lambertian(spectra, "soil", [0.25, 0.20, 0.14])   # a material id

    Creating it sets the scene's band count and records the band centre wavelengths
    in the scene (scene.band_wavelengths(), read by thermal mode and by to_xarray); the
    emission mode is left as it is. Values are float32; a single number stands for the
    same value in every band.
    """

    def __init__(self, scene, wavelengths_nm, widths_nm=None):
        wl = np.atleast_1d(np.asarray(wavelengths_nm, np.float32))
        if wl.ndim != 1 or len(wl) == 0 or not np.all(np.isfinite(wl)) or np.any(wl <= 0):
            raise ValueError("wavelengths_nm must be a nonempty list of positive numbers (nm)")
        self.scene = scene
        self.wavelengths = wl
        self.widths = _widths(wl, widths_nm)
        self.offsets = {}
        self.materials = {}  # material id -> (type, entry name, scalar params)
        self.sun_name = self.sky_name = None
        self.sun_vector = None
        self._blocks = []
        scene.set_num_bands(len(wl))
        scene.set_thermal_mode(scene.thermal_mode(), wl)

    @property
    def n_bands(self):
        return len(self.wavelengths)

    @property
    def buffer(self):
        """The flat float32 buffer, as uploaded to the scene."""
        if not self._blocks:
            return np.zeros(0, np.float32)
        return np.concatenate(self._blocks).astype(np.float32)

    def add(self, name, *blocks):
        """Append the entry `name` made of one or more blocks (each n_bands values, or one
        number for all bands), upload the buffer, and return the entry's offset."""
        if name in self.offsets:
            raise ValueError(f"a spectrum named {name!r} is already in the buffer")
        if not blocks:
            raise ValueError(f"{name}: give at least one block of values")
        rows = [self._block(name, b) for b in blocks]
        self.offsets[name] = sum(len(b) for b in self._blocks)
        self._blocks.extend(rows)
        self.scene.upload_spectral_params(self.buffer)
        return self.offsets[name]

    def set_sun(self, direction, irradiance, name="sun"):
        """Add the sun's spectrum (W m-2 nm-1 at normal incidence) as entry `name` and point
        the scene's sun at it, shining from `direction` (towards the sun, as
        vesk.sun_direction gives it). A sun at or below the horizon is refused. Returns the
        entry's offset. The workflow helpers read the sun from here."""
        d = np.asarray(direction, np.float64).reshape(3)
        norm = np.linalg.norm(d)
        if not np.isfinite(norm) or norm == 0.0:
            raise ValueError("direction must be a finite, nonzero vector towards the sun")
        d = d / norm
        if d[2] <= 0.0:
            raise ValueError(f"the sun is below the horizon (direction z = {d[2]:.3f}); "
                             "the direction points from the scene towards the sun, +z up")
        offset = self.add(name, irradiance)
        if (self.values(name) < 0).any():
            raise ValueError(f"{name}: the irradiance cannot be negative")
        self.scene.set_emitter(0, d.astype(np.float32), offset)
        self.sun_name, self.sun_vector = name, d
        return offset

    def set_sky(self, radiance, name="sky"):
        """Add a uniform sky of radiance W m-2 sr-1 nm-1 as entry `name` and select it;
        returns the entry's offset."""
        offset = self.add(name, radiance)
        if (self.values(name) < 0).any():
            raise ValueError(f"{name}: the sky radiance cannot be negative")
        self.scene.set_sky(offset)
        self.sky_name = name
        return offset

    def sun_irradiance(self):
        """The sun's irradiance at normal incidence in each band, W m-2 (the spectrum times
        the band widths), or zeros without a sun."""
        if self.sun_name is None:
            return np.zeros(self.n_bands)
        return self.values(self.sun_name).astype(np.float64) * self.widths

    def sky_radiance(self):
        """The sky's radiance in each band, W m-2 sr-1 (times the band widths), or zeros."""
        if self.sky_name is None:
            return np.zeros(self.n_bands)
        return self.values(self.sky_name).astype(np.float64) * self.widths

    def _material(self, type_, name, params):
        mid = self.scene.add_material(type_, self.offsets[name], params)
        self.materials[mid] = (type_, name, list(params))
        return mid

    def optics(self, material_id):
        """(front reflectance, back reflectance, transmittance), each (bands,) float64, of a
        material made by lambertian, leaf or rpv (RPV: its rho0, the BRF-scale
        brightness), and whether it is a two-sided leaf."""
        if material_id not in self.materials:
            raise ValueError(f"material {material_id} was not made through this Spectra "
                             "(use vesk.lambertian, vesk.leaf or vesk.rpv)")
        type_, name, _ = self.materials[material_id]
        v = lambda block: self.values(name, block).astype(np.float64)  # noqa: E731
        if type_ == LEAF:
            return v(0), v(1), v(2), True
        if type_ == RPV:
            return v(0) * np.pi, v(0) * np.pi, np.zeros(self.n_bands), False
        return v(0), v(0), np.zeros(self.n_bands), False

    def __getitem__(self, name):
        """The offset of entry `name`."""
        return self.offsets[name]

    def values(self, name, block=0):
        """A copy of block `block` of entry `name` (n_bands float32)."""
        start = self.offsets[name] + block * self.n_bands
        return self.buffer[start:start + self.n_bands].copy()

    def _block(self, name, values):
        v = np.asarray(values, np.float32)
        if v.ndim == 0:
            v = np.full(self.n_bands, v, np.float32)
        if v.shape != (self.n_bands,):
            raise ValueError(f"{name}: each block needs {self.n_bands} values (one per band), "
                             f"not shape {v.shape}")
        if not np.all(np.isfinite(v)):
            raise ValueError(f"{name} contains a non-finite value")
        return v


def _widths(wl, widths_nm):
    """Band widths in nm: given, or reaching halfway to the neighbouring centres (a lone
    band without widths counts 1 nm, so its values stay per nanometre)."""
    if widths_nm is not None:
        w = np.broadcast_to(np.asarray(widths_nm, np.float64), wl.shape).copy()
        if not (np.isfinite(w).all() and (w > 0).all()):
            raise ValueError("widths_nm must be positive numbers (nm), one per band")
        return w
    if len(wl) == 1:
        return np.ones(1)
    order = np.argsort(wl)
    c = wl[order].astype(np.float64)
    edges = np.concatenate([[c[0] - (c[1] - c[0]) / 2], (c[1:] + c[:-1]) / 2,
                            [c[-1] + (c[-1] - c[-2]) / 2]])
    w = np.empty(len(wl))
    w[order] = np.diff(edges)
    return w


def _fraction(spectra, name, what, values):
    v = np.asarray(values, np.float64)
    if (v < 0).any() or (v > 1).any():
        raise ValueError(f"{name}: {what} must lie in [0, 1] in every band "
                         f"(found {v.min():.3g} to {v.max():.3g})")


def lambertian(spectra, name, reflectance):
    """A Lambertian (diffuse) material of reflectance 0..1 per band; returns its id."""
    _fraction(spectra, name, "the reflectance", reflectance)
    spectra.add(name, reflectance)
    return spectra._material(LAMBERTIAN, name, [])


def leaf(spectra, name, reflectance, transmittance, back_reflectance=None):
    """A leaf that reflects and transmits diffusely, with its front and back reflectance
    (the back defaults to the front) and its transmittance, each 0..1 per band; returns
    its id. Paths choose reflection or transmission in the ratio of the band means."""
    back = reflectance if back_reflectance is None else back_reflectance
    for what, v in (("the reflectance", reflectance), ("the back reflectance", back),
                    ("the transmittance", transmittance)):
        _fraction(spectra, name, what, v)
    t = np.asarray(transmittance, np.float64)
    _fraction(spectra, name, "reflectance + transmittance", np.asarray(reflectance, np.float64) + t)
    _fraction(spectra, name, "back reflectance + transmittance", np.asarray(back, np.float64) + t)
    spectra.add(name, reflectance, back, transmittance)
    r, t = spectra.values(name, 0), spectra.values(name, 2)
    return spectra._material(LEAF, name, [float(r.mean()), float(t.mean())])


def rpv(spectra, name, rho0, k=1.0, theta=0.0, rho_c=1.0):
    """A Rahman-Pinty-Verstraete surface; returns its id. rho0 is given on the BRF scale,
    the reflectance a Lambertian surface of the same brightness would have: with k = 1,
    Theta = 0 and rho_c = 1 the surface IS Lambertian with reflectance rho0. (The scene
    stores rho0 / pi, because the module's RPV value enters the estimators undivided.)
    k: Minnaert exponent (<1 bowl-shaped, >1 bell-shaped); theta: Henyey-Greenstein
    asymmetry, -1..1 (negative: backward scattering); rho_c: hot-spot parameter (1: no
    hot spot, smaller: a stronger one). Each is one number or one value per band."""
    _fraction(spectra, name, "rho0", rho0)
    scaled = np.asarray(rho0, np.float64) / np.pi
    spectra.add(name, scaled, k, theta, rho_c)
    return spectra._material(RPV, name, [float(np.mean(rho0)), 0.0])
