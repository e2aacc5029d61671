"""Results as labelled xarray Datasets: coordinates in metres, nanometres and degrees,
units in each variable's attrs, ready for .sel(), plotting and .to_netcdf().

    ds = vesk.to_xarray(vk.simulate_flux_cpu(scene, 8, 8, 10**6, 3), scene)
    ds.downwelling.sel(wavelength=650).plot()
    ds.to_netcdf("flux.nc")

Energies of the photon tracers are per cell and per nanometre of spectrum: with the sun
spectrum in W m-2 nm-1 they are in W nm-1 (divide by 'cell_area' for W m-2 nm-1).
Images are radiances in W m-2 sr-1 nm-1. BRF and albedo have no unit.
"""
import numpy as np

RADIANCE = "W m-2 sr-1 nm-1"
ENERGY = "W nm-1"


def flux_extent(scene):
    """(W, H): the flux grid's extent in metres, [0, W] x [0, H] from the world origin.
    The tile of a repeated scene, else the sensor's orthographic extent (ortho_w,
    ortho_h); the camera's position plays no part."""
    _, w, h = scene.repetitive_config()
    if w > 0 and h > 0:
        return float(w), float(h)
    s = scene.sensor_config()
    return float(s["ortho_width"]), float(s["ortho_height"])


def forward_footprint(scene):
    """(x0, y0, W, H): where the forward tracer's grid lies: the tile of a repeated
    scene, else the scene box as of the last build."""
    _, w, h = scene.repetitive_config()
    if w > 0 and h > 0:
        return 0.0, 0.0, float(w), float(h)
    lo, hi = scene.aabb()
    return float(lo[0]), float(lo[1]), float(hi[0] - lo[0]), float(hi[1] - lo[1])


def _centres(x0, size, n):
    return x0 + (np.arange(n) + 0.5) * (size / n)


def _band_axis(n, scene, wavelengths):
    wl = wavelengths
    if wl is None and scene is not None:
        wl = scene.band_wavelengths()
    if wl is not None and len(wl) == n:
        return "wavelength", {"wavelength": ("wavelength", np.asarray(wl, np.float64),
                                             {"units": "nm", "long_name": "band centre"})}
    return "band", {"band": np.arange(n)}


def to_xarray(result, scene=None, *, wavelengths=None, layer_heights=None, directions=None):
    """A simulation result as an xarray.Dataset.

    result: the dict of simulate_cpu, simulate_forward_cpu, simulate_brf_cpu or
    simulate_flux_cpu. scene: the scene it ran on, for the grid positions (and the band
    wavelengths that vesk.Spectra recorded in it); needed for grids.
    wavelengths: band centres in nm, when the scene does not know them (else the band
    axis is called 'band' and numbered).
    layer_heights: the layer boundaries given to simulate_forward_cpu, when more than
    one layer was asked for. directions: the BRF directions (flat float3, as given to
    the run), to label 'brf' with view zenith and azimuth angles.

    Grids get x and y cell centres in metres; forward layers get 'z' (layer centres)
    with 'z_bottom' and 'z_top'; images keep their pixel 'row' (0 at the bottom, as the
    module returns them) and 'column'; BRF rows get 'view_zenith' and 'view_azimuth'
    (degrees, compass azimuth as in vesk.sun_direction). The '_execution' record goes
    into the Dataset's attrs.
    """
    import xarray as xr

    executor = result["_execution"]["executor"]
    kind = executor.rsplit(".", 1)[-1]
    builders = {"optical_backward": _image, "optical_flux": _flux,
                "optical_forward": _forward, "optical_brf": _brf}
    if kind not in builders:
        raise ValueError(f"to_xarray knows images, forward, BRF and flux results, not the "
                         f"result of {executor}")
    data_vars, coords, attrs = builders[kind](result, scene, wavelengths, layer_heights,
                                              directions)
    attrs.update({k: (int(v) if isinstance(v, bool) else v)
                  for k, v in result["_execution"].items()})
    return xr.Dataset(data_vars, coords, attrs)


def _need(scene, what):
    if scene is None:
        raise ValueError(f"to_xarray needs the scene to place {what}: to_xarray(result, scene)")


def _image(result, scene, wavelengths, _layers, _dirs):
    h, w, n = result["payload"].shape
    band, coords = _band_axis(n, scene, wavelengths)
    dims = ("row", "column", band)
    out = {"radiance": (dims, result["payload"], {"units": RADIANCE,
                                                  "long_name": "mean radiance"})}
    if "standard_error" in result:
        out["standard_error"] = (dims, result["standard_error"], {"units": RADIANCE})
    for part, image in result.get("event_aov", {}).items():
        out[f"radiance_{part}"] = (dims, image, {"units": RADIANCE,
                                                 "long_name": f"radiance by {part} events"})
    if "scattering_order" in result:
        orders = result["scattering_order"]
        names = ["unscattered"] + [str(k) for k in range(1, len(orders) - 1)] + ["higher"]
        coords["order"] = ("order", names)
        out["radiance_by_order"] = (("order",) + dims, orders, {"units": RADIANCE})
    coords["row"] = ("row", np.arange(h), {"long_name": "pixel row, 0 at the bottom"})
    coords["column"] = ("column", np.arange(w))
    return out, coords, {}


def _flux(result, scene, wavelengths, _layers, _dirs):
    _need(scene, "the flux grid")
    ny, nx, n = result["downwelling"].shape
    band, coords = _band_axis(n, scene, wavelengths)
    W, H = flux_extent(scene)
    coords["x"] = ("x", _centres(0.0, W, nx), {"units": "m", "long_name": "x", "description": "cell centre"})
    coords["y"] = ("y", _centres(0.0, H, ny), {"units": "m", "long_name": "y", "description": "cell centre"})
    texts = {"downwelling": ("downwelling", "energy arriving at surfaces in the cell"),
             "upwelling": ("upwelling", "energy leaving the cell"),
             "downwelling_direct": ("downwelling, sun", "downwelling of sun photons, all orders"),
             "downwelling_diffuse": ("downwelling, sky", "downwelling of sky photons")}
    out = {k: (("y", "x", band), result[k], {"units": ENERGY, "long_name": name,
                                             "description": text})
           for k, (name, text) in texts.items() if k in result}
    return out, coords, {"cell_area": W * H / (nx * ny), "cell_area_units": "m2"}


def _forward(result, scene, wavelengths, layers, dirs):
    _need(scene, "the forward grid")
    nz, ny, nx, n = result["grid"].shape
    band, coords = _band_axis(n, scene, wavelengths)
    x0, y0, W, H = forward_footprint(scene)
    coords["x"] = ("x", _centres(x0, W, nx), {"units": "m", "long_name": "x", "description": "cell centre"})
    coords["y"] = ("y", _centres(y0, H, ny), {"units": "m", "long_name": "y", "description": "cell centre"})
    if layers is None:
        if nz != 1:
            raise ValueError(f"the grid has {nz} layers: pass the layer_heights of the run")
        lo, hi = scene.aabb()
        layers = [lo[2], hi[2]]
    z = np.asarray(layers, np.float64)
    if len(z) != nz + 1:
        raise ValueError(f"layer_heights has {len(z)} boundaries for {nz} layers")
    coords["z"] = ("z", (z[:-1] + z[1:]) / 2, {"units": "m", "long_name": "layer centre"})
    coords["z_bottom"] = ("z", z[:-1], {"units": "m"})
    coords["z_top"] = ("z", z[1:], {"units": "m"})
    cells, bands = ("y", "x", band), (band,)
    out = {}
    for key, dims, name, text in [
            ("grid", ("z",) + cells, "absorbed", "absorbed by all but the terrain instance"),
            ("grid_direct", ("z",) + cells, "absorbed, sun", "absorbed from sun photons"),
            ("grid_diffuse", ("z",) + cells, "absorbed, sky", "absorbed from sky photons"),
            ("terrain", cells, "absorbed by terrain", "absorbed by the terrain instance"),
            ("incident_grid", cells, "incident", "incident energy by the column it came in by"),
            ("incident", bands, "incident", "energy entering the scene"),
            ("escaped", bands, "escaped", "energy leaving the scene upward"),
            ("transmitted", bands, "transmitted", "energy leaving the scene downward"),
            ("absorbed_outside", bands, "absorbed outside", "outside the grid or its layers"),
            ("truncated", bands, "truncated", "energy of photons stopped by max_depth")]:
        if key in result:
            out[key] = (dims, result[key], {"units": ENERGY, "long_name": name,
                                            "description": text})
    if "leaf" in result:
        out["leaf"] = (("primitive", band), result["leaf"],
                       {"units": ENERGY, "long_name": "absorbed per primitive"})
    out["albedo"] = (bands, result["albedo"], {"units": "1"})
    if "brf" in result:
        out.update(_brf_vars(result, band, coords, dirs))
    attrs = {"cell_area": W * H / (nx * ny), "cell_area_units": "m2"}
    return out, coords, attrs


def _brf(result, scene, wavelengths, _layers, dirs):
    band, coords = _band_axis(result["brf"].shape[1], scene, wavelengths)
    out = _brf_vars(result, band, coords, dirs)
    for key in ("albedo", "incident", "escaped"):
        out[key] = ((band,), result[key], {"units": "1" if key == "albedo" else ENERGY})
    return out, coords, {}


def _brf_vars(result, band, coords, dirs):
    brf = result["brf"]
    if dirs is not None:
        d = np.asarray(dirs, np.float64).reshape(-1, 3)[:len(brf)]
        d = d / np.linalg.norm(d, axis=1, keepdims=True)
        coords["view_zenith"] = ("direction", np.degrees(np.arccos(np.clip(d[:, 2], -1, 1))),
                                 {"units": "degree"})
        coords["view_azimuth"] = ("direction", np.degrees(np.arctan2(d[:, 0], d[:, 1])) % 360,
                                  {"units": "degree", "long_name": "compass azimuth"})
    return {"brf": (("direction", band), brf,
                    {"units": "1", "long_name": "bidirectional reflectance factor"})}
