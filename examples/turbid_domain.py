"""Turbid domains: two tree crowns as closed leaf volumes, sampled into leaf-area points.

A Turbid domain is the statistical stand-in for the leaves of a crown: the crown's closed
mesh bounds a volume with a leaf area density, and the sampler turns it into scientific
leaf-area integration points (positions inside, leaf normals by the leaf angle
distribution, equal area weights that sum to density times volume). This script

1. builds a domain of two crowns: one given as a mesh, one as a scene instance;
2. extends it: a larger budget keeps every sample already accepted as a prefix;
3. inspects samples, relations and revisions;
4. arms a commit failure, watches the next extension fail, and checks that nothing
   changed; then the same extension passes;
5. draws the samples seen from the south: out/turbid_domain.png.

Run with:  PYTHONPATH=build/python /usr/bin/python3 examples/turbid_domain.py
"""
import matplotlib.pyplot as plt
import numpy as np

import vesk
import vesk_gpu as vk

F = np.float32

scene = vk.EmbreeSceneManager()
# Crown B is an ellipsoid instance of the scene (a sphere mesh stretched by the transform).
sphere = vk.make_sphere(1.0, np.zeros(3, F), subdivisions=3)
crown_b = scene.add_instance_xform(scene.add_mesh(**sphere),
                                   np.array([1.6, 0, 0, 5.0, 0, 1.6, 0, 0.0, 0, 0, 1.2, 4.0], F))
# Crown A is given directly as a closed mesh in world space: a sphere of radius 1.5 m.
crown_a = vk.make_sphere(1.5, np.array([0.0, 0.0, 4.0], F), subdivisions=3)

request = {
    "quality": "preview",          # 512 samples per crown
    "seed": 2026,
    "owners": [
        {"owner_id": 101, "medium_id": 1, "leaf_area_density": 1.2, "leaf_length": 0.06,
         "leaf_angle_distribution": 0,              # spherical
         "vertices": crown_a["vertices"], "triangles": crown_a["indices"]},
        {"owner_id": 102, "medium_id": 2, "leaf_area_density": 0.8, "leaf_length": 0.04,
         "leaf_angle_distribution": 1,              # planophile: mostly flat leaves
         "instance_id": crown_b},
    ],
}

# ---- 1. check, then build ----
for o in vk._preflight_turbid_sampling_embree(scene, request)["owners"]:
    print(f"owner {o['owner_id']}: volume {o['volume']:.3f} m3, leaf area "
          f"{o['target_leaf_area']:.3f} m2, {o['n_triangles']} boundary triangles")
domain = vk._build_turbid_domain_embree(scene, request)
did = domain["domain_id"]
print(f"built domain {did}: {domain['n_samples']} samples from "
      f"{domain['candidates_tested']} candidates")

# ---- 2. extend: the first 512 samples of each crown stay as they are ----
before = vk._debug_turbid_domain_samples_embree(scene, did)
vk._extend_turbid_samples_embree(scene, did, 2048)
after = vk._debug_turbid_domain_samples_embree(scene, did)
offsets = after["sample_offsets"]
kept = all(np.array_equal(after["position"][offsets[k]:offsets[k] + 512],
                          before["position"][before["sample_offsets"][k]:before["sample_offsets"][k] + 512])
           for k in range(2))
print(f"extended to {len(after['sample_id'])} samples; earlier samples kept as prefix: {kept}")

# ---- 3. inspect ----
for k, (lo, hi) in enumerate(zip(offsets[:-1], offsets[1:])):
    normals = after["normal"][lo:hi]
    area = after["leaf_area"][lo:hi].astype(np.float64).sum()
    print(f"crown {k}: leaf area {area:.3f} m2, mean |cos zenith| {np.abs(normals[:, 2]).mean():.3f}")
revisions = vk._turbid_domain_revisions_embree(scene, did)
print(f"revisions: domain {revisions['domain_revision']}, sampling {revisions['sampling_revision']}, "
      f"relations {revisions['relation_revision']}")

# ---- 4. a commit that fails at an armed stage changes nothing ----
held = vk._debug_turbid_residency_embree(scene)["domains"]
vk._set_turbid_commit_failure_embree(scene, "table_replace")
try:
    vk._extend_turbid_samples_embree(scene, did, 4096)
except RuntimeError as error:
    print(f"commit failed as armed: {error}")
unchanged = vk._debug_turbid_residency_embree(scene)["domains"] == held
print(f"domain unchanged after the failure: {unchanged}")
vk._extend_turbid_samples_embree(scene, did, 4096)
print(f"the same extension then passes: "
      f"{vk._debug_turbid_residency_embree(scene)['domains'][did]['n_samples']} samples")

# ---- 5. the samples from the south: each crown's volume filled with leaf-area points ----
final = vk._debug_turbid_domain_samples_embree(scene, did)
ends = final["sample_offsets"]
for k, colour in enumerate(["tab:green", "tab:olive"]):
    p = final["position"][ends[k]:ends[k + 1]]
    plt.scatter(p[:, 0], p[:, 2], s=1, c=colour, label=f"crown {'AB'[k]}: {len(p)} samples")
plt.legend(loc="upper center", ncol=2, markerscale=6)
plt.gca().set(aspect="equal", ylim=(2.2, 6.6), xlabel="x (m)", ylabel="z (m)",
              title="leaf-area samples seen from the south")
vesk.save_figure("out/turbid_domain.png", dpi=80)
