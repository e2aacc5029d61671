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

    def __init__(self, scene, wavelengths_nm):
        wl = np.atleast_1d(np.asarray(wavelengths_nm, np.float32))
        if wl.ndim != 1 or len(wl) == 0 or not np.all(np.isfinite(wl)) or np.any(wl <= 0):
            raise ValueError("wavelengths_nm must be a nonempty list of positive numbers (nm)")
        self.scene = scene
        self.wavelengths = wl
        self.offsets = {}
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


def lambertian(spectra, name, reflectance):
    """A Lambertian (diffuse) material of reflectance 0..1 per band; returns its id."""
    offset = spectra.add(name, reflectance)
    return spectra.scene.add_material(LAMBERTIAN, offset, [])


def leaf(spectra, name, reflectance, transmittance, back_reflectance=None):
    """A leaf that reflects and transmits diffusely, with its front and back reflectance
    (the back defaults to the front) and its transmittance, each 0..1 per band; returns
    its id. Paths choose reflection or transmission in the ratio of the band means."""
    back = reflectance if back_reflectance is None else back_reflectance
    offset = spectra.add(name, reflectance, back, transmittance)
    r, t = spectra.values(name, 0), spectra.values(name, 2)
    return spectra.scene.add_material(LEAF, offset, [float(r.mean()), float(t.mean())])


def rpv(spectra, name, rho0, k=1.0, theta=0.0, rho_c=1.0):
    """A Rahman-Pinty-Verstraete surface; returns its id. rho0 is given on the BRF scale,
    the reflectance a Lambertian surface of the same brightness would have: with k = 1,
    Theta = 0 and rho_c = 1 the surface IS Lambertian with reflectance rho0. (The scene
    stores rho0 / pi, because the module's RPV value enters the estimators undivided.)
    k: Minnaert exponent (<1 bowl-shaped, >1 bell-shaped); theta: Henyey-Greenstein
    asymmetry, -1..1 (negative: backward scattering); rho_c: hot-spot parameter (1: no
    hot spot, smaller: a stronger one). Each is one number or one value per band."""
    scaled = np.asarray(rho0, np.float64) / np.pi
    offset = spectra.add(name, scaled, k, theta, rho_c)
    return spectra.scene.add_material(RPV, offset, [float(np.mean(rho0)), 0.0])
