"""Pictures of simulated images: a documented tone map and a PNG writer.

The tone map, in order:
  1. pick the bands shown as red, green and blue (or one band, shown grey), and turn
     the rows over (unless flip=False): the module's row 0 is the bottom of the
     picture, a display's row 0 its top;
  2. multiply by `exposure`; by default the exposure puts the log-average luminance
     of the picture at KEY = 0.25 (the "key" of Reinhard et al. 2002, a little above
     mid-grey), so a picture of sunlit soil and leaves is neither dark nor washed out;
  3. compress the luminance Y = 0.2126 R + 0.7152 G + 0.0722 B as Y / (1 + Y), scaling
     all three channels by the same factor so that hues survive bright light (a
     brown soil stays brown instead of clipping to white);
  4. clip to [0, 1] and encode with a display gamma of 2.2.
Negative or non-finite values (a Monte Carlo estimate can dip below zero) count as 0.
"""
import numpy as np

KEY = 0.25
GAMMA = 2.2
_LUMA = np.array([0.2126, 0.7152, 0.0722])


def _pick(image, bands, flip=True):
    img = np.asarray(image, np.float64)
    if img.ndim == 2:
        img = img[..., None]
    if img.ndim != 3:
        raise ValueError("image must be (height, width) or (height, width, bands)")
    if bands is None:
        bands = (0, 1, 2) if img.shape[2] >= 3 else (0,)
    bands = tuple(int(b) for b in np.atleast_1d(bands))
    if len(bands) not in (1, 3):
        raise ValueError("bands: give three band indices (red, green, blue) or one (grey)")
    img = (img[::-1] if flip else img)[..., list(bands)]
    return np.where(np.isfinite(img) & (img > 0), img, 0.0)


def _luminance(rgb):
    return rgb[..., 0] if rgb.shape[-1] == 1 else rgb @ _LUMA


def auto_exposure(image, bands=None):
    """The exposure that puts the log-average luminance of the image at KEY."""
    y = _luminance(_pick(image, bands))
    y = y[y > 0]
    if y.size == 0:
        return 1.0
    return float(KEY / np.exp(np.mean(np.log(y))))


def tone_map(image, bands=None, exposure=None, flip=True):
    """Display values in [0, 1], (height, width, 3) or (height, width, 1), and the
    exposure used; see the module's description of the steps.

    Row order: with flip=True (the default) row 0 of the result is the TOP of the
    picture, ready for an image file or plt.imshow; the payloads of simulate_cpu have
    row 0 at the bottom, so the result is the payload's rows reversed. flip=False keeps
    the payload's order (row 0 at the bottom), pixel for pixel with the payload, as
    plt.imshow(..., origin="lower") shows it."""
    rgb = _pick(image, bands, flip)
    if exposure is None:
        exposure = auto_exposure(image, bands)
    rgb = rgb * float(exposure)
    y = _luminance(rgb)
    with np.errstate(invalid="ignore", divide="ignore"):
        scale = np.where(y > 0, 1.0 / (1.0 + y), 0.0)
    out = np.clip(rgb * scale[..., None], 0.0, 1.0) ** (1.0 / GAMMA)
    return out, float(exposure)


def save_image(path, image, bands=None, exposure=None):
    """Write a (height, width, bands) radiance image (a simulate_cpu payload) as a PNG,
    the usual way up. bands: the indices shown as red, green, blue, or one index for a
    grey picture (default: the first three bands, or band 0). exposure: radiance
    multiplier before the tone curve; None chooses one automatically. Give the same
    number to several pictures to compare their brightness. Returns the exposure used.
    Folders in `path` are created as needed."""
    import os

    from PIL import Image

    display, exposure = tone_map(image, bands, exposure)
    pixels = np.round(255.0 * display).astype(np.uint8)
    folder = os.path.dirname(os.fspath(path))
    if folder:
        os.makedirs(folder, exist_ok=True)
    Image.fromarray(pixels[..., 0] if pixels.shape[-1] == 1 else pixels).save(path)
    return exposure


def save_figure(path, figure=None, dpi=100):
    """Save a matplotlib figure (default: the current one) to `path`, creating folders
    as needed, and close it."""
    import os

    import matplotlib.pyplot as plt

    figure = figure or plt.gcf()
    folder = os.path.dirname(os.fspath(path))
    if folder:
        os.makedirs(folder, exist_ok=True)
    figure.savefig(path, dpi=dpi)
    plt.close(figure)
