"""Progress bars for the simulations' `progress` argument."""


class ProgressBar:
    """A callable progress(done, total, elapsed_ms) that draws a tqdm bar on standard
    error. It opens a bar when a run starts and closes it when done reaches total, so
    one object serves several runs in turn."""

    def __init__(self, desc=None, **tqdm_args):
        self.desc, self.tqdm_args, self.bar = desc, tqdm_args, None

    def __call__(self, done, total, elapsed_ms):
        from tqdm import tqdm

        if self.bar is None or self.bar.total != total or done < self.bar.n:
            self.close()
            self.bar = tqdm(total=total, desc=self.desc, unit_scale=total >= 10000, **self.tqdm_args)
        self.bar.update(done - self.bar.n)
        if done >= total:
            self.close()

    def close(self):
        if self.bar is not None:
            self.bar.close()
            self.bar = None


def progress_bar(desc=None, **tqdm_args):
    """A progress bar for any simulation that takes `progress`: simulate_cpu (counts
    sample passes), simulate_forward_cpu, simulate_brf_cpu, simulate_flux_cpu (count
    photons, updated about every quarter second):

        vk.simulate_flux_cpu(scene, 8, 8, 10**7, 3, progress=vesk.progress_bar("flux"))

    Extra keyword arguments go to tqdm (file=, leave=, ...)."""
    return ProgressBar(desc, **tqdm_args)
