"""Meshes from files (Wavefront OBJ, PLY) and trees with porous crowns of leaves.

A mesh here is the dict that scene.add_mesh takes: 'vertices' (N, 3) float32,
'normals' (N, 3) float32 or (0, 3) for flat shading, 'indices' (M, 3) int32, wound
counter-clockwise seen from the front. Polygons are split into fans of triangles.
"""
import os

import numpy as np

F = np.float32


def _mesh(vertices, normals, indices):
    v = np.asarray(vertices, F).reshape(-1, 3)
    n = np.asarray(normals, F).reshape(-1, 3)
    i = np.asarray(indices, np.int32).reshape(-1, 3)
    if len(n) != len(v):
        n = np.zeros((0, 3), F)
    if len(i) and (i.min() < 0 or i.max() >= len(v)):
        raise ValueError("a face refers to a vertex that the file does not have")
    return {"vertices": v, "normals": n, "indices": i}


def _fans(polygons):
    """Triangles (a, b, c) of the fans of polygons given as index lists."""
    return [(p[0], p[k], p[k + 1]) for p in polygons for k in range(1, len(p) - 1)]


def load_obj(path):
    """A Wavefront OBJ file: 'v' and 'vn' lines and 'f' faces (v, v/vt, v//vn or
    v/vt/vn, negative indices counted from the end). Normals are kept only when every
    face corner has one; groups, materials and texture coordinates are ignored."""
    positions, normals, faces = [], [], []
    with open(path) as f:
        for line in f:
            parts = line.split()
            if not parts:
                continue
            if parts[0] == "v":
                positions.append([float(x) for x in parts[1:4]])
            elif parts[0] == "vn":
                normals.append([float(x) for x in parts[1:4]])
            elif parts[0] == "f":
                corners = []
                for c in parts[1:]:
                    fields = c.split("/")
                    vi = int(fields[0])
                    ni = int(fields[2]) if len(fields) > 2 and fields[2] else None
                    vi = vi - 1 if vi > 0 else len(positions) + vi
                    if ni is not None:
                        ni = ni - 1 if ni > 0 else len(normals) + ni
                    corners.append((vi, ni))
                faces.append(corners)
    with_normals = bool(faces) and all(n is not None for face in faces for _, n in face)
    if not with_normals:
        return _mesh(positions, [], _fans([[v for v, _ in face] for face in faces]))
    # A vertex of the mesh is a (position, normal) pair, as OBJ indexes them apart.
    pairs, polygons = {}, []
    for face in faces:
        polygons.append([pairs.setdefault(corner, len(pairs)) for corner in face])
    order = np.array(list(pairs), np.int64).reshape(-1, 2)
    p, n = np.asarray(positions, F), np.asarray(normals, F)
    if order.size and (order.max(axis=0) >= [len(p), len(n)]).any():
        raise ValueError("a face refers to a vertex or normal that the file does not have")
    return _mesh(p[order[:, 0]], n[order[:, 1]], _fans(polygons))


_PLY_TYPES = {"char": "i1", "int8": "i1", "uchar": "u1", "uint8": "u1", "short": "i2",
              "int16": "i2", "ushort": "u2", "uint16": "u2", "int": "i4", "int32": "i4",
              "uint": "u4", "uint32": "u4", "float": "f4", "float32": "f4", "double": "f8",
              "float64": "f8"}


def load_ply(path):
    """A PLY file, ASCII or binary (either byte order): the 'vertex' element's x, y, z
    (and nx, ny, nz when present) and the 'face' element's vertex_indices (or
    vertex_index) lists. Other elements and properties are skipped."""
    with open(path, "rb") as f:
        if f.readline().strip() != b"ply":
            raise ValueError(f"{path} is not a PLY file")
        fmt, elements = None, []
        while True:
            line = f.readline()
            if not line:
                raise ValueError(f"{path}: the PLY header has no end_header")
            words = line.decode("ascii", "replace").split()
            if not words or words[0] in ("comment", "obj_info"):
                continue
            if words[0] == "format":
                fmt = words[1]
            elif words[0] == "element":
                elements.append((words[1], int(words[2]), []))
            elif words[0] == "property":
                if words[1] == "list":
                    prop = (words[4], _PLY_TYPES[words[2]], _PLY_TYPES[words[3]])
                else:
                    prop = (words[2], _PLY_TYPES[words[1]], None)
                elements[-1][2].append(prop)
            elif words[0] == "end_header":
                break
        body = f.read()
    if fmt == "ascii":
        data = _ply_ascii(body, elements)
    elif fmt in ("binary_little_endian", "binary_big_endian"):
        data = _ply_binary(body, elements, "<" if fmt == "binary_little_endian" else ">")
    else:
        raise ValueError(f"{path}: unknown PLY format {fmt!r}")
    vertex = data.get("vertex", {})
    if not all(k in vertex for k in "xyz"):
        raise ValueError(f"{path}: the vertex element has no x, y, z")
    v = np.stack([vertex[k] for k in "xyz"], axis=1)
    n = np.stack([vertex[k] for k in ("nx", "ny", "nz")], axis=1) \
        if all(k in vertex for k in ("nx", "ny", "nz")) else []
    face = data.get("face", {})
    polygons = face.get("vertex_indices", face.get("vertex_index", []))
    return _mesh(v, n, _fans([list(p) for p in polygons]))


def _ply_ascii(body, elements):
    tokens = iter(body.split())
    data = {}
    for name, count, props in elements:
        columns = {p[0]: [] for p in props}
        for _ in range(count):
            for pname, _, itype in props:
                if itype is None:
                    columns[pname].append(float(next(tokens)))
                else:
                    k = int(next(tokens))
                    columns[pname].append([int(next(tokens)) for _ in range(k)])
        data[name] = {p: (np.asarray(columns[p]) if itype is None else columns[p])
                      for p, _, itype in props}
    return data


def _ply_binary(body, elements, order):
    data, pos = {}, 0
    for name, count, props in elements:
        if all(itype is None for _, _, itype in props):
            dtype = np.dtype([(p, order + t) for p, t, _ in props])
            rows = np.frombuffer(body, dtype, count, pos)
            pos += dtype.itemsize * count
            data[name] = {p: rows[p].astype(np.float64) for p, _, _ in props}
            continue
        columns = {p[0]: [] for p in props}
        for _ in range(count):
            for pname, vtype, itype in props:
                if itype is None:
                    t = np.dtype(order + vtype)
                    columns[pname].append(float(np.frombuffer(body, t, 1, pos)[0]))
                    pos += t.itemsize
                else:
                    ct, it = np.dtype(order + vtype), np.dtype(order + itype)
                    k = int(np.frombuffer(body, ct, 1, pos)[0])
                    pos += ct.itemsize
                    columns[pname].append(np.frombuffer(body, it, k, pos).tolist())
                    pos += it.itemsize * k
        data[name] = columns
    return data


def load_mesh(path):
    """An OBJ or PLY file (by its extension) as an add_mesh dict:
    scene.add_mesh(**load_mesh("bunny.ply"), material_id=m)."""
    ext = os.path.splitext(os.fspath(path))[1].lower()
    if ext == ".obj":
        return load_obj(path)
    if ext == ".ply":
        return load_ply(path)
    raise ValueError(f"load_mesh reads .obj and .ply files, not {ext or 'this file'}")


def leaf_cloud(n_leaves, centre, radii, leaf_size, rng):
    """A crown of n_leaves small triangular leaves as a mesh dict for scene.add_mesh
    (give material_id too): leaf centres uniform in the ellipsoid of semi-axes `radii`
    (m) around `centre`, each corner a normal deviate of standard deviation leaf_size
    (m) around its centre, so leaves have random sizes and orientations. rng: a
    numpy Generator, so that several crowns follow one seeded stream."""
    if n_leaves < 1 or not leaf_size > 0 or np.any(np.asarray(radii, np.float64) <= 0):
        raise ValueError("leaf_cloud needs n_leaves >= 1 and positive radii and leaf_size")
    c = rng.normal(size=(n_leaves, 3))
    c *= rng.uniform(size=(n_leaves, 1)) ** (1 / 3) / np.linalg.norm(c, axis=1, keepdims=True)
    c = c * np.asarray(radii, np.float64) + np.asarray(centre, np.float64)
    v = c[:, None, :] + leaf_size * rng.normal(size=(n_leaves, 3, 3))
    return {"vertices": v.reshape(-1, 3).astype(F), "normals": np.zeros((0, 3), F),
            "indices": np.arange(3 * n_leaves, dtype=np.int32).reshape(-1, 3)}


def make_tree(scene, leaf_material, bark_material, crown_radius=1.5, crown_height=3.0,
              trunk_height=2.0, trunk_radius=0.12, leaf_area_density=1.0, leaf_size=0.15,
              seed=0):
    """Add one tree shape to the scene and return a Tree that plants copies of it.

    The crown is an ellipsoid crown_radius wide and crown_height tall, starting at
    trunk_height, filled with square leaves of side leaf_size (m) placed uniformly at
    random with random (spherical) orientations, leaf_area_density m2 of leaf per m3
    of crown: light passes through its gaps, as through a real crown. All the leaves of
    the crown are one mesh, so each planted tree costs one instance of it, and one of
    the trunk (a cylinder). Leaves use leaf_material (a two-sided leaf, vesk.leaf),
    the trunk bark_material."""
    import vesk_gpu

    rng = np.random.default_rng(seed)
    a, c = crown_radius, crown_height / 2.0
    n = max(1, int(round(leaf_area_density * 4.0 / 3.0 * np.pi * a * a * c / leaf_size**2)))
    centres = rng.normal(size=(n, 3))
    centres *= (rng.uniform(size=(n, 1)) ** (1 / 3)) / np.linalg.norm(centres, axis=1,
                                                                       keepdims=True)
    centres = centres * [a, a, c] + [0.0, 0.0, trunk_height + c]
    # Random rotations: a uniformly distributed leaf normal and a spin about it.
    normal = rng.normal(size=(n, 3))
    normal /= np.linalg.norm(normal, axis=1, keepdims=True)
    helper = np.where(np.abs(normal[:, :1]) < 0.9, [[1.0, 0, 0]], [[0, 1.0, 0]])
    u = np.cross(normal, helper)
    u /= np.linalg.norm(u, axis=1, keepdims=True)
    w = np.cross(normal, u)
    spin = rng.uniform(0, 2 * np.pi, size=(n, 1))
    u, w = np.cos(spin) * u + np.sin(spin) * w, -np.sin(spin) * u + np.cos(spin) * w
    h = leaf_size / 2.0
    corners = np.stack([centres - h * u - h * w, centres + h * u - h * w,
                        centres + h * u + h * w, centres - h * u + h * w], axis=1)
    quad = np.array([[0, 1, 2], [0, 2, 3]])
    indices = (quad[None] + 4 * np.arange(n)[:, None, None]).reshape(-1, 3)
    crown = scene.add_mesh(corners.reshape(-1, 3).astype(F), np.zeros((0, 3), F),
                           indices.astype(np.int32), leaf_material)
    stem = vesk_gpu.make_cylinder(trunk_radius, trunk_height + c, segments=10)
    trunk = scene.add_mesh(**stem, material_id=bark_material)
    return Tree(scene, crown, trunk, n, leaf_size**2)


class Tree:
    """A tree shape in a scene: crown_mesh and trunk_mesh ids, n_leaves and leaf_area
    (m2, one side, of one crown). plant() places copies. Each leaf is two triangles."""

    def __init__(self, scene, crown_mesh, trunk_mesh, n_leaves, leaf_area):
        self.scene, self.crown_mesh, self.trunk_mesh = scene, crown_mesh, trunk_mesh
        self.n_leaves, self.leaf_area = n_leaves, n_leaves * leaf_area

    def leaf_primitives(self, crown_instance):
        """The global primitive ids (a slice) of the leaves of one planted crown, to
        read per-primitive results such as simulate_forward_cpu's 'leaf' rows. Valid
        once the scene is built."""
        first = int(self.scene.get_instance_primitive_offsets()[crown_instance])
        return slice(first, first + 2 * self.n_leaves)

    def plant(self, x, y, scale=1.0, rotation_deg=0.0, z=0.0):
        """Place copies with their trunk's foot at (x, y, z), scaled by `scale` and turned
        by rotation_deg about the vertical. Numbers plant one tree and return (crown
        instance, trunk instance); arrays (broadcast together) plant one tree per
        element and return two arrays of instance ids."""
        x, y, scale, rot, z = np.broadcast_arrays(*(np.asarray(v, np.float64) for v in
                                                    (x, y, scale, rotation_deg, z)))
        t = np.radians(rot).ravel()
        s = scale.ravel()
        xf = np.zeros((t.size, 12), F)
        xf[:, 0], xf[:, 1], xf[:, 3] = s * np.cos(t), -s * np.sin(t), x.ravel()
        xf[:, 4], xf[:, 5], xf[:, 7] = s * np.sin(t), s * np.cos(t), y.ravel()
        xf[:, 10], xf[:, 11] = s, z.ravel()
        crowns = self.scene.add_instances_xform(self.crown_mesh, xf) + np.arange(t.size)
        trunks = self.scene.add_instances_xform(self.trunk_mesh, xf) + np.arange(t.size)
        if x.ndim == 0:
            return int(crowns[0]), int(trunks[0])
        return crowns, trunks


LEAF_ANGLES = {"spherical": 0, "planophile": 1, "erectophile": 2, "plagiophile": 3,
               "extremophile": 4, "uniform": 5}


def _enclosed_volume(mesh):
    """Volume enclosed by a closed, outward-wound triangle mesh (divergence theorem)."""
    v = np.asarray(mesh["vertices"], np.float64)[np.asarray(mesh["indices"])]
    return float(np.einsum("ij,ij->i", v[:, 0], np.cross(v[:, 1], v[:, 2])).sum() / 6.0)


def turbid_crowns(spectra, leaf_material, x, y, lai, crown_radius=1.0, crown_height=2.0,
                  crown_base=1.0, leaf_angle="spherical", leaf_size=0.05, ground_area=None):
    """Ellipsoidal turbid crowns whose leaf area makes the leaf area index `lai` (m2 of
    leaf per m2 of ground) over `ground_area` (default: the tile of a repeated scene).

    x, y: crown centres (m, one value or one per crown); crown_radius, crown_height,
    crown_base (m, one value or one per crown): the ellipsoid's horizontal radius, its
    height and the height of its bottom. Every crown gets the same leaf area density,
    lai x ground_area / (total crown volume), with the volume of the mesh that bounds
    the medium (an icosphere, a little under the ellipsoid's), so the leaf area inside
    the crowns is exactly lai x ground_area. leaf_angle: one of LEAF_ANGLES; leaf_size:
    the hot-spot length (m). The leaves scatter with leaf_material (a vesk.leaf).

    Call it after adding every material through `spectra` (the media table names one
    entry per material). Returns a dict: 'leaf_area_density' m2 m-3, 'crown_volume' m3
    (all crowns), 'leaf_area' m2, 'instances' (instance ids)."""
    import vesk_gpu

    scene = spectra.scene
    if leaf_angle not in LEAF_ANGLES:
        raise ValueError(f"leaf_angle must be one of {sorted(LEAF_ANGLES)}, not {leaf_angle!r}")
    if leaf_material not in spectra.materials or spectra.materials[leaf_material][0] != 13:
        raise ValueError("leaf_material must be a leaf made by vesk.leaf with this Spectra")
    if not (np.isfinite(lai) and lai > 0):
        raise ValueError(f"lai must be a positive number, not {lai}")
    if ground_area is None:
        _, w, h = scene.repetitive_config()
        if not (w > 0 and h > 0):
            raise ValueError("give ground_area (m2): the scene is not repeated over a tile")
        ground_area = w * h
    x, y, r, ht, base = np.broadcast_arrays(*(np.atleast_1d(np.asarray(a, np.float64)) for a in
                                              (x, y, crown_radius, crown_height, crown_base)))
    if (r <= 0).any() or (ht <= 0).any() or not leaf_size >= 0:
        raise ValueError("crown_radius and crown_height must be positive, leaf_size not negative")
    sphere = vesk_gpu.make_sphere(1.0, np.zeros(3, F), subdivisions=3)
    unit_volume = _enclosed_volume(sphere)
    mesh = scene.add_mesh(**sphere, material_id=leaf_material)
    instances = [scene.add_instance_xform(mesh, np.array(
        [ri, 0, 0, xi, 0, ri, 0, yi, 0, 0, hi / 2, bi + hi / 2], F))
        for xi, yi, ri, hi, bi in zip(x, y, r, ht, base)]
    volume = float(unit_volume * (r * r * ht / 2).sum())
    density = lai * ground_area / volume
    media = [-1] * (max(spectra.materials) + 1)
    media[leaf_material] = 0
    scene.set_optical_turbid_media(leaf_area_density=[density], leaf_angle_types=[LEAF_ANGLES[leaf_angle]],
                                   orientations=[1], leaf_characteristic_lengths=[leaf_size],
                                   material_medium_ids=media)
    return {"leaf_area_density": density, "crown_volume": volume, "leaf_area": lai * ground_area,
            "instances": instances}
