"""vesk: pure-Python companions of the vesk_gpu module.

LiDAR output (`write_las`, LAS 1.4 point clouds) and scan patterns that make pulse
origins and directions (`airborne_line_scan`, `terrestrial_scan`). The simulations
themselves live in the compiled module `vesk_gpu`; `vesk.distributed` (imported on its
own, since it needs Dask) runs them on a cluster.
"""
from vesk.las import write_las
from vesk.scan import airborne_line_scan, terrestrial_scan

__all__ = ["write_las", "airborne_line_scan", "terrestrial_scan"]
