"""Type stubs of the compiled vesk_gpu module, made by scripts/make_stubs.py from the
module's own signatures and docstrings: do not edit by hand, rerun the script."""
from typing import Any, Callable, Optional, Union, overload

import numpy
import numpy.typing

class EmbreeSceneManager:
    """CPU scene on Embree: meshes, instances, materials, spectra, sun, sky, sensor
    and per-primitive overrides, traced as a two-level acceleration structure.
    Scenes pickle (and save() / load() one .npz file): the recipe travels, the
    acceleration structure is built again on arrival, and results are the same
    bit for bit. Turbid domains (_build_turbid_domain_embree) do not travel: a
    copy has none, and needs them built again.
    """
    def __init__(self: EmbreeSceneManager) -> None:
        ...
    def aabb(self: EmbreeSceneManager) -> tuple:
        """((x_min, y_min, z_min), (x_max, y_max, z_max)) from the transformed corner boxes of
        every instance, as of the last build() or refit_ias().
        """
    def add_instance(self: EmbreeSceneManager, mesh_id: int, x: float = ..., y: float = ..., z: float = ..., scale: float = ...) -> int:
        """Place a mesh with a uniform scale, then a translation (x, y, z). Returns the instance index."""
    def add_instance_xform(self: EmbreeSceneManager, mesh_id: int, xform: numpy.typing.NDArray[numpy.float32]) -> int:
        """Place a mesh with a 12-float row-major 3x4 affine transform [M3 | t]: p -> M3 p + t.
        Returns the instance index.
        """
    def add_instances_xform(self: EmbreeSceneManager, mesh_id: int, xforms: numpy.typing.NDArray[numpy.float32]) -> int:
        """Batch-add N instances of one mesh from a (N, 12) row-major float32 array. Returns the index of the FIRST added instance."""
    def add_material(self: EmbreeSceneManager, type: int, offset: int, scalar_params: list) -> int:
        """Append a material; returns its index. offset: index of its first float in the
        spectral buffer, where it reads blocks of n_bands floats each:
          0 Lambertian: one block, the reflectance r (0..1); BRDF r / pi.
          1 RPV: four blocks rho0, k, Theta (-1..1), rho_c. rho0 enters the estimators as it
            stands, NOT divided by pi: a Lambertian limit of BRF r needs rho0 = r / pi
            (with k = 1, Theta = 0, rho_c = 1).
          13 leaf: three consecutive blocks, front reflectance, back reflectance and
            transmittance (each / pi as a BRDF / BTDF).
        In thermal mode block 0 holds the emissivity of every type. scalar_params: up to 8
        floats: [0] band-mean reflectance and [1] band-mean transmittance (a leaf chooses
        reflection or transmission in this ratio), [2] temperature K, [3] sunlit K and [4]
        shaded K for thermal emission; the rest are carried unread.
        """
    def add_mesh(self: EmbreeSceneManager, vertices: numpy.typing.NDArray[numpy.float32], normals: numpy.typing.NDArray[numpy.float32], indices: numpy.typing.NDArray[numpy.int32], material_id: int = ...) -> int:
        """Add a triangle mesh. vertices: (N, 3) float32 in scene units; normals: (N, 3) float32
        per-vertex normals, or (0, 3) for a flat-shaded mesh; indices: (M, 3) int32 vertex
        indices, counter-clockwise seen from the front. Returns the mesh index.
        """
    def band_wavelengths(self: EmbreeSceneManager) -> list[float]:
        """Band centre wavelengths in nm, as given to set_thermal_mode()."""
    def build(self: EmbreeSceneManager) -> None:
        """Build the acceleration structure (one scene per mesh, one instance per placement),
        compute the bounds and raise geometry_build_revision. Instances added later are not
        traced until the next build() (is_built() is False until then).
        Precision: ray origins step off a surface by a number of float steps, and a float
        step grows with the coordinate, so a scene far from the origin is biased (a 4 cm leaf
        canopy loses 3 % of its hot-spot BRF with the ground at 100 m, 10 % at 500 m).
        build() warns (UserWarning) when the box reaches beyond 100 scene units from the
        origin: centre your scene there.
        """
    def build_reuse_gas(self: EmbreeSceneManager) -> None:
        """Mark the scene built again, reusing the acceleration structure."""
    def build_reuse_geometry(self: EmbreeSceneManager) -> None:
        """Mark the scene built again, reusing the acceleration structure."""
    def clear_for_reuse(self: EmbreeSceneManager) -> None:
        """Drop materials, spectra, sky, emitter, bands and emission modes, keeping meshes,
        instances and the acceleration structure; follow with build_reuse_gas().
        """
    def clear_instance_sif_source_fields(self: EmbreeSceneManager) -> None:
        """Remove the per-instance SIF source tables."""
    def clear_instance_sif_spectra(self: EmbreeSceneManager) -> None:
        """Remove the per-instance TurbidBoundary SIF spectra."""
    def clear_instance_turbid_thermal_state(self: EmbreeSceneManager) -> None:
        """Remove the per-instance TurbidBoundary thermal state."""
    def clear_primitive_sif_spectra(self: EmbreeSceneManager) -> None:
        """Remove the per-primitive SIF spectra."""
    def clear_primitive_temperatures(self: EmbreeSceneManager) -> None:
        """Clear the per-primitive temperature override (kernel reverts to mat.params[2..4])."""
    def conditional_hotspot_transmittance(self: EmbreeSceneManager, medium_id: int, optical_depth: float, initial_medium_distance: float, observation_distance: float, source_direction: numpy.typing.NDArray[numpy.float32], observation_direction: numpy.typing.NDArray[numpy.float32]) -> float:
        """Transmittance of a shadow ray of optical depth tau and length a (initial medium
        distance) inside a medium whose first-order path already ran b (observation distance)
        inside it: the paths share leaves over the characteristic length, shrinking with the
        angle between source and observation directions. exp(-tau) without correlation;
        never above 1. A non-finite number or a zero direction is refused (ValueError
        naming it).
        """
    def geometry_build_revision(self: EmbreeSceneManager) -> int:
        """Counter raised by build() and refit_ias(); results made from an older revision are stale."""
    def get_instance_primitive_offsets(self: EmbreeSceneManager) -> list[int]:
        """Global id of each instance's first primitive (prefix sum of its triangle counts)."""
    def get_primitive_areas(self: EmbreeSceneManager) -> numpy.typing.NDArray[numpy.float32]:
        """World-space area of every primitive: (P,) float32, scene units squared."""
    def get_primitive_emissivities(self: EmbreeSceneManager) -> numpy.typing.NDArray[numpy.float32]:
        """Per-primitive emissivities as uploaded (empty when none)."""
    def get_primitive_mat_ids(self: EmbreeSceneManager) -> numpy.typing.NDArray[numpy.int32]:
        """Material id of every primitive: (P,) int32."""
    def get_primitive_normals(self: EmbreeSceneManager) -> numpy.typing.NDArray[numpy.float32]:
        """World-space unit normal cross(v1 - v0, v2 - v0) of every primitive: (P, 3) float32."""
    def get_primitive_temperatures(self: EmbreeSceneManager) -> numpy.typing.NDArray[numpy.float32]:
        """Return host-side per-primitive temperatures (mostly for testing)."""
    def has_gpu_meshes(self: EmbreeSceneManager) -> bool:
        """Whether any mesh was added (the CPU answer for its own meshes)."""
    def has_meshes(self: EmbreeSceneManager) -> bool:
        ...
    def instance_triangle_counts(self: EmbreeSceneManager) -> list[int]:
        """Triangles of each instance, as a list of int."""
    def is_built(self: EmbreeSceneManager) -> bool:
        ...
    def is_populate_primitive_soa(self: EmbreeSceneManager) -> bool:
        """Whether the per-primitive SoA will be (or has been) populated on the next build (true if explicitly enabled or implied by thermal/SIF mode)."""
    def load(function) -> method:
        """Convert a function to be a static method.

        A static method does not receive an implicit first argument.
        To declare a static method, use this idiom:

             class C:
                 @staticmethod
                 def f(arg1, arg2, ...):
                     ...

        It can be called either on the class (e.g. C.f()) or on an instance
        (e.g. C().f()). Both the class and the instance are ignored, and
        neither is passed implicitly as the first argument to the method.

        Static methods in Python are similar to those found in Java or C++.
        For a more advanced concept, see the classmethod builtin.
        """
    def material_medium_ids(self: EmbreeSceneManager) -> list[int]:
        """The medium of each material (-1: ordinary), as given to set_optical_turbid_media."""
    def max_height(self: EmbreeSceneManager) -> float:
        """Top of the scene bounds after build."""
    def min_height(self: EmbreeSceneManager) -> float:
        """Bottom of the scene bounds after build."""
    def n_primitives(self: EmbreeSceneManager) -> int:
        """Number of primitives in global order (instance-major, triangle-minor)."""
    def num_instances(self: EmbreeSceneManager) -> int:
        ...
    def num_optical_turbid_media(self: EmbreeSceneManager) -> int:
        ...
    def optical_turbid_medium(self: EmbreeSceneManager, medium_id: int) -> dict:
        """One medium: 'leaf_area_density', 'leaf_characteristic_length', 'leaf_angle_type',
        'orientation', 'material_id' and 'projection_g' (G at view zenith 0..90 degrees).
        """
    def primitive_geometry(self: EmbreeSceneManager) -> dict:
        """World-space primitives in global order: 'vertices' (P, 3, 3) float32, 'normals' (P, 3),
        'areas' (P,), 'material_ids', 'instance_ids', 'primitive_ids' (P,) int32.
        """
    def refit_ias(self: EmbreeSceneManager) -> None:
        """Recommit the top-level structure after update_instance_transform(); recomputes the
        bounds and raises geometry_build_revision by one.
        """
    def refit_instances(self: EmbreeSceneManager) -> None:
        """Recommit the top-level structure after update_instance_transform(); recomputes the
        bounds and raises geometry_build_revision by one.
        """
    def repetitive_config(self: EmbreeSceneManager) -> tuple:
        """(num_repetitions, scene_x_size, scene_y_size)"""
    def sample_combined_free_path(self: EmbreeSceneManager, active_medium_ids: numpy.typing.NDArray[numpy.int32], direction: numpy.typing.NDArray[numpy.float32], distance_sample: float, selection_sample: float) -> dict:
        """The tracers' free path through overlapping media: distance = -ln(1 - u) / sigma_total
        (sigma = leaf_area_density * G(direction), summed over the media), and the medium
        hit, chosen by selection_sample in proportion to sigma. Returns 'distance' (the
        largest float when nothing can collide), 'sigma_total', 'selected_slot', 'medium_id'.
        A non-finite number or a zero direction is refused (ValueError naming it).
        """
    def save(self: EmbreeSceneManager, path: object) -> None:
        """Write the scene to one .npz file at path, exactly as given (no suffix is added):
        what pickling carries, as NumPy arrays and scalars. Read it with
        EmbreeSceneManager.load(path).
        """
    def sensor_config(self: EmbreeSceneManager) -> dict:
        """The sensor record: 'type', 'width', 'height', 'ortho_width', 'ortho_height', 'fov'
        (radians), 'projection_type' and 'camera_to_world' (16 floats, row-major).
        """
    def set_directional_sky(self: EmbreeSceneManager, spectral_offset: int) -> None:
        """Directional sky table [n_bands, 16 zenith rows, 32 azimuth columns] at spectral_offset."""
    def set_emitter(self: EmbreeSceneManager, type: int, direction: numpy.typing.NDArray[numpy.float32], spectral_offset: int) -> None:
        """Set the sun. type: 0, a directional sun (the only kind the CPU tracers know; other
        values are kept and treated alike); direction: 3 floats towards the sun, made unit
        length here (a zero vector means no sun); spectral_offset: index of its spectrum,
        n_bands floats of irradiance at normal incidence (W m-2 nm-1), or -1 for no sun.
        """
    def set_hw_sky(self: EmbreeSceneManager, spectral_offset: int, sun_x: float, sun_y: float, sun_z: float) -> None:
        """Hosek-Wilkie sky: 10 coefficients per band at spectral_offset, with its own sun
        direction; clears the other skies.
        """
    def set_instance_sif_source_fields(self: EmbreeSceneManager, spatial_spectra: numpy.typing.NDArray[numpy.float32], orientation_spectra: numpy.typing.NDArray[numpy.float32], joint_spectra: numpy.typing.NDArray[numpy.float32], direct_joint_spectra: numpy.typing.NDArray[numpy.float32], bounds_min: numpy.typing.NDArray[numpy.float32], bounds_max: numpy.typing.NDArray[numpy.float32], grid_dims: numpy.typing.NDArray[numpy.int32], n_sif_bands: int, spatial_cell_stride: int, orientation_theta_bins: int, orientation_phi_bins: int) -> None:
        """Upload per-instance SIF source tables, band fastest, one instance after another:
        spatial_spectra [num_instances * spatial_cell_stride * n_sif_bands], orientation_spectra
        [num_instances * theta_bins * phi_bins * n_sif_bands], joint_spectra and
        direct_joint_spectra [num_instances * spatial_cell_stride * theta_bins * phi_bins *
        n_sif_bands]; bounds_min, bounds_max: 3 floats and grid_dims: 3 int32 per instance.
        """
    def set_instance_sif_spectra(self: EmbreeSceneManager, spectra: numpy.typing.NDArray[numpy.float32], n_sif_bands: int) -> None:
        """Upload per-instance TurbidBoundary SIF spectra in band-major layout [n_sif_bands * num_instances]."""
    def set_instance_turbid_thermal_state(self: EmbreeSceneManager, temperature_sunlit: numpy.typing.NDArray[numpy.float32], temperature_shaded: numpy.typing.NDArray[numpy.float32], sunlit_fraction: numpy.typing.NDArray[numpy.float32], emissivity: numpy.typing.NDArray[numpy.float32]) -> None:
        """Upload conditional TurbidBoundary thermal state by instance."""
    def set_measurement_plane(self: EmbreeSceneManager, height: float) -> None:
        """Height (scene units) of the plane over which photons of a repeated scene start (0.1
        above it) in the flux, forward and BRF runs. Until it is set, the plane is the top
        of the scene box as of the last build(), so photons start above every crown; set
        it lower only on purpose (photons born under a crown make no shadow).
        """
    def set_num_bands(self: EmbreeSceneManager, arg0: int) -> None:
        """Number of spectral bands, 1 to 100000; fixes the block length (n floats) of every
        spectral entry.
        """
    def set_optical_turbid_media(self: EmbreeSceneManager, leaf_area_density: numpy.typing.NDArray[numpy.float32], leaf_angle_types: numpy.typing.NDArray[numpy.int32], orientations: numpy.typing.NDArray[numpy.int32], leaf_characteristic_lengths: numpy.typing.NDArray[numpy.float32], material_medium_ids: numpy.typing.NDArray[numpy.int32]) -> None:
        """Replace the table of optical turbid media: volumes of leaves bounded by closed
        meshes whose material is listed in material_medium_ids. One entry per medium:
        leaf_area_density (m2 m-3, >= 0); leaf_angle_types 0 spherical, 1 planophile,
        2 erectophile, 3 plagiophile, 4 extremophile, 5 uniform; orientations 1 when the
        medium is inside the bounding mesh (outward-wound), -1 when outside;
        leaf_characteristic_lengths (m, the hot-spot correlation length, 0 for none).
        material_medium_ids: one int per material added so far, -1 for an ordinary surface,
        else the medium it bounds. A bounding surface does not scatter: rays enter or leave
        the medium there, and inside it collide with leaves that scatter with the material
        of the LAST material naming the medium. Every tracer follows the media. In a repeated
        scene, a medium that fills the tile (a leaf layer) should reach slightly past the
        tile walls (by a centimetre, say): faces lying exactly on a wall are ambiguous.
        """
    def set_populate_primitive_soa(self: EmbreeSceneManager, arg0: bool) -> None:
        """Enable per-primitive SoA + per-instance lookup tables for the next build(). Required by EB / SIF / RRT-based paths."""
    def set_primitive_emissivities(self: EmbreeSceneManager, emissivities: numpy.typing.NDArray[numpy.float32]) -> None:
        """Upload per-primitive emissivities: (n_primitives(),) float32, 0..1."""
    def set_primitive_sif_spectra(self: EmbreeSceneManager, spectra: numpy.typing.NDArray[numpy.float32], n_sif_bands: int) -> None:
        """Upload per-primitive SIF emission spectra. spectra: float32[n_sif_bands * n_primitives] SoA (band-major). After upload, the backward kernel emits SIF from each hit primitive."""
    def set_primitive_temperatures(self: EmbreeSceneManager, temperatures: numpy.typing.NDArray[numpy.float32]) -> None:
        """Upload per-primitive temperatures (K). Length must equal n_primitives(). Closesthit thermal mode reads these in preference to mat.params[2..4] when set."""
    def set_repetitive(self: EmbreeSceneManager, num_repetitions: int, scene_x_size: float, scene_y_size: float) -> None:
        """Repeat the scene as a tile [0, scene_x_size] x [0, scene_y_size]; rays cross up to
        num_repetitions tile walls.
        """
    def set_sensor(self: EmbreeSceneManager, type: int, width: int, height: int, ortho_w: float, ortho_h: float, cam_xform: numpy.typing.NDArray[numpy.float32], fov: float = ..., projection_type: int = ..., terrain_following: bool = ...) -> None:
        """Set the sensor. type: 0 orthographic, 1 perspective, 3 pushbroom, 4 fisheye; width,
        height in pixels; ortho_w, ortho_h: orthographic (and pushbroom along-track) extent in
        scene units; cam_xform: row-major 4x4 camera-to-world (up to 16 floats, the camera
        looks down its -z); fov in degrees; projection_type: fisheye mapping (0 equisolid,
        1 equidistant, 2 orthographic, other stereographic). Any other type is refused.
        Image row 0 is the bottom of the picture (camera -y), the last row its top.
        """
    def set_sif_only_mode(self: EmbreeSceneManager, enabled: bool) -> None:
        """Enable/disable SIF-only mode. When true the backward kernel returns pure SIF emission and suppresses optical reflectance (BSDF/NEE/sky)."""
    def set_sky(self: EmbreeSceneManager, spectral_offset: int) -> None:
        """Uniform sky radiance, n_bands floats at spectral_offset; clears the other skies."""
    def set_thermal_mode(self: EmbreeSceneManager, enabled: bool, wavelengths: list[float]) -> None:
        """Switch thermal emission on or off; wavelengths: band centres in nm, one per band."""
    def thermal_mode(self: EmbreeSceneManager) -> bool:
        ...
    def total_triangles(self: EmbreeSceneManager) -> int:
        """Triangles over all instances (a mesh used twice counts twice)."""
    def trace_closest(self: EmbreeSceneManager, origins: numpy.typing.NDArray[numpy.float32], directions: numpy.typing.NDArray[numpy.float32], t_min: float = ..., t_max: float = ...) -> dict:
        """Closest hit of each ray on the built scene. origins, directions: (N, 3) float32.
        Returns 't' (N,) float32 (FLT_MAX on a miss), 'position', 'shading_normal',
        'geometric_normal' (N, 3) float32 (normals face the ray; (0, 0, 1) on a miss),
        'material_id', 'instance_id', 'primitive_id' (N,) int32 (-1 on a miss; primitive ids
        are global) and 'hit' (N,) bool.
        """
    def update_emitter_direction(self: EmbreeSceneManager, direction: numpy.typing.NDArray[numpy.float32]) -> None:
        """Re-aim the sun (a vector towards it, made unit length); the spectrum stays."""
    def update_instance_transform(self: EmbreeSceneManager, id: int, xform: numpy.typing.NDArray[numpy.float32]) -> None:
        """Replace an instance's 12-float row-major transform. On a built scene the change reaches
        the acceleration structure after refit_ias().
        """
    def upload_spectral_params(self: EmbreeSceneManager, arg0: numpy.typing.NDArray[numpy.float32]) -> None:
        """Replace the whole spectral parameter buffer (flat float32): reflectances, sun
        spectrum and sky tables, each addressed by its offset.
        """

HAS_EMBREE: bool

HAS_OPTIX: bool

HAS_VULKAN: bool

PHOTON_CHUNK: int

TURBID_MAX_SAMPLE_BUDGET: int

class VulkanContext:
    """A Vulkan device: instance, logical device, one compute queue, and
    the trace path its programs take ('ray_query', else
    'ray_pipeline'; VESK_VULKAN_TRACE=query|pipeline forces one, and
    forcing a path the device lacks is a RuntimeError).
    """
    def __init__(self: VulkanContext, device_index: int = ...) -> None:
        """Open the compatible device at device_index in the ranking of list_vulkan_devices()."""
    api_version: Any
    device_index: Any
    device_name: Any
    physical_device_index: Any
    queue_family_index: Any
    total_vram_mb: Any
    trace_path: Any

class VulkanSceneManager:
    """Vulkan scene: the CPU scene's records and setters, resident on the device as one
    bottom-level acceleration structure per mesh and a top-level one over the instances,
    traced by the device programs in the context's trace path: ray-query compute
    shaders, or ray-tracing pipelines on devices without ray queries.
    """
    def __init__(self: VulkanSceneManager, context: VulkanContext, trace_shader: str = ...) -> None:
        """A scene on the context's device. trace_shader: the closest-hit program, a path or
        a file name beside the module; the default is the one the build makes. On the
        ray_pipeline path its ray-generation form '<name>.rgen.spv' is loaded instead, with
        'hit.rchit.spv' and 'miss.rmiss.spv' from the same folder.
        """
    def aabb(self: VulkanSceneManager) -> tuple:
        """((x_min, y_min, z_min), (x_max, y_max, z_max)) from the transformed corner boxes of
        every instance, as of the last build() or refit_ias().
        """
    def add_instance(self: VulkanSceneManager, mesh_id: int, x: float = ..., y: float = ..., z: float = ..., scale: float = ...) -> int:
        """Place a mesh with a uniform scale, then a translation (x, y, z). Returns the instance index."""
    def add_instance_xform(self: VulkanSceneManager, mesh_id: int, xform: numpy.typing.NDArray[numpy.float32]) -> int:
        """Place a mesh with a 12-float row-major 3x4 affine transform [M3 | t]: p -> M3 p + t.
        Returns the instance index.
        """
    def add_instances_xform(self: VulkanSceneManager, mesh_id: int, xforms: numpy.typing.NDArray[numpy.float32]) -> int:
        """Batch-add N instances of one mesh from a (N, 12) row-major float32 array. Returns the index of the FIRST added instance."""
    def add_material(self: VulkanSceneManager, type: int, offset: int, scalar_params: list) -> int:
        """Append a material; returns its index. offset: index of its first float in the
        spectral buffer, where it reads blocks of n_bands floats each:
          0 Lambertian: one block, the reflectance r (0..1); BRDF r / pi.
          1 RPV: four blocks rho0, k, Theta (-1..1), rho_c. rho0 enters the estimators as it
            stands, NOT divided by pi: a Lambertian limit of BRF r needs rho0 = r / pi
            (with k = 1, Theta = 0, rho_c = 1).
          13 leaf: three consecutive blocks, front reflectance, back reflectance and
            transmittance (each / pi as a BRDF / BTDF).
        In thermal mode block 0 holds the emissivity of every type. scalar_params: up to 8
        floats: [0] band-mean reflectance and [1] band-mean transmittance (a leaf chooses
        reflection or transmission in this ratio), [2] temperature K, [3] sunlit K and [4]
        shaded K for thermal emission; the rest are carried unread.
        """
    def add_mesh(self: VulkanSceneManager, vertices: numpy.typing.NDArray[numpy.float32], normals: numpy.typing.NDArray[numpy.float32], indices: numpy.typing.NDArray[numpy.int32], material_id: int = ...) -> int:
        """Add a triangle mesh. vertices: (N, 3) float32 in scene units; normals: (N, 3) float32
        per-vertex normals, or (0, 3) for a flat-shaded mesh; indices: (M, 3) int32 vertex
        indices, counter-clockwise seen from the front. Returns the mesh index.
        """
    def band_wavelengths(self: VulkanSceneManager) -> list[float]:
        """Band centre wavelengths in nm, as given to set_thermal_mode()."""
    def build(self: VulkanSceneManager) -> None:
        """Build the acceleration structure (one scene per mesh, one instance per placement),
        compute the bounds and raise geometry_build_revision. Instances added later are not
        traced until the next build() (is_built() is False until then).
        Precision: ray origins step off a surface by a number of float steps, and a float
        step grows with the coordinate, so a scene far from the origin is biased (a 4 cm leaf
        canopy loses 3 % of its hot-spot BRF with the ground at 100 m, 10 % at 500 m).
        build() warns (UserWarning) when the box reaches beyond 100 scene units from the
        origin: centre your scene there.
        """
    def build_reuse_gas(self: VulkanSceneManager) -> None:
        """Mark the scene built again, reusing the acceleration structure."""
    def build_reuse_geometry(self: VulkanSceneManager) -> None:
        """Mark the scene built again, reusing the acceleration structure."""
    def clear_for_reuse(self: VulkanSceneManager) -> None:
        """Drop materials, spectra, sky, emitter, bands and emission modes, keeping meshes,
        instances and the acceleration structure; follow with build_reuse_gas().
        """
    def clear_instance_sif_source_fields(self: VulkanSceneManager) -> None:
        """Remove the per-instance SIF source tables."""
    def clear_instance_sif_spectra(self: VulkanSceneManager) -> None:
        """Remove the per-instance TurbidBoundary SIF spectra."""
    def clear_instance_turbid_thermal_state(self: VulkanSceneManager) -> None:
        """Remove the per-instance TurbidBoundary thermal state."""
    def clear_primitive_sif_spectra(self: VulkanSceneManager) -> None:
        """Remove the per-primitive SIF spectra."""
    def clear_primitive_temperatures(self: VulkanSceneManager) -> None:
        """Clear the per-primitive temperature override (kernel reverts to mat.params[2..4])."""
    def conditional_hotspot_transmittance(self: VulkanSceneManager, medium_id: int, optical_depth: float, initial_medium_distance: float, observation_distance: float, source_direction: numpy.typing.NDArray[numpy.float32], observation_direction: numpy.typing.NDArray[numpy.float32]) -> float:
        """Transmittance of a shadow ray of optical depth tau and length a (initial medium
        distance) inside a medium whose first-order path already ran b (observation distance)
        inside it: the paths share leaves over the characteristic length, shrinking with the
        angle between source and observation directions. exp(-tau) without correlation;
        never above 1. A non-finite number or a zero direction is refused (ValueError
        naming it).
        """
    def geometry_build_revision(self: VulkanSceneManager) -> int:
        """Counter raised by build() and refit_ias(); results made from an older revision are stale."""
    def get_instance_primitive_offsets(self: VulkanSceneManager) -> list[int]:
        """Global id of each instance's first primitive (prefix sum of its triangle counts)."""
    def get_primitive_areas(self: VulkanSceneManager) -> numpy.typing.NDArray[numpy.float32]:
        """World-space area of every primitive: (P,) float32, scene units squared."""
    def get_primitive_emissivities(self: VulkanSceneManager) -> numpy.typing.NDArray[numpy.float32]:
        """Per-primitive emissivities as uploaded (empty when none)."""
    def get_primitive_mat_ids(self: VulkanSceneManager) -> numpy.typing.NDArray[numpy.int32]:
        """Material id of every primitive: (P,) int32."""
    def get_primitive_normals(self: VulkanSceneManager) -> numpy.typing.NDArray[numpy.float32]:
        """World-space unit normal cross(v1 - v0, v2 - v0) of every primitive: (P, 3) float32."""
    def get_primitive_temperatures(self: VulkanSceneManager) -> numpy.typing.NDArray[numpy.float32]:
        """Return host-side per-primitive temperatures (mostly for testing)."""
    def has_gpu_meshes(self: VulkanSceneManager) -> bool:
        """Whether any mesh was added (the CPU answer for its own meshes)."""
    def has_meshes(self: VulkanSceneManager) -> bool:
        ...
    def instance_triangle_counts(self: VulkanSceneManager) -> list[int]:
        """Triangles of each instance, as a list of int."""
    def is_built(self: VulkanSceneManager) -> bool:
        ...
    def is_populate_primitive_soa(self: VulkanSceneManager) -> bool:
        """Whether the per-primitive SoA will be (or has been) populated on the next build (true if explicitly enabled or implied by thermal/SIF mode)."""
    def material_medium_ids(self: VulkanSceneManager) -> list[int]:
        """The medium of each material (-1: ordinary), as given to set_optical_turbid_media."""
    def max_height(self: VulkanSceneManager) -> float:
        """Top of the scene bounds after build."""
    def min_height(self: VulkanSceneManager) -> float:
        """Bottom of the scene bounds after build."""
    def n_primitives(self: VulkanSceneManager) -> int:
        """Number of primitives in global order (instance-major, triangle-minor)."""
    def num_instances(self: VulkanSceneManager) -> int:
        ...
    def num_optical_turbid_media(self: VulkanSceneManager) -> int:
        ...
    def optical_turbid_medium(self: VulkanSceneManager, medium_id: int) -> dict:
        """One medium: 'leaf_area_density', 'leaf_characteristic_length', 'leaf_angle_type',
        'orientation', 'material_id' and 'projection_g' (G at view zenith 0..90 degrees).
        """
    def primitive_geometry(self: VulkanSceneManager) -> dict:
        """World-space primitives in global order: 'vertices' (P, 3, 3) float32, 'normals' (P, 3),
        'areas' (P,), 'material_ids', 'instance_ids', 'primitive_ids' (P,) int32.
        """
    def refit_ias(self: VulkanSceneManager) -> None:
        """Recommit the top-level structure after update_instance_transform(); recomputes the
        bounds and raises geometry_build_revision by one.
        """
    def refit_instances(self: VulkanSceneManager) -> None:
        """Recommit the top-level structure after update_instance_transform(); recomputes the
        bounds and raises geometry_build_revision by one.
        """
    def repetitive_config(self: VulkanSceneManager) -> tuple:
        """(num_repetitions, scene_x_size, scene_y_size)"""
    def run_energy_balance_gpu(self: VulkanSceneManager, n_samples: int = ..., max_depth: int = ..., band_type: int = ..., sun_irradiance: object = ..., sky_diffuse_radiance: object = ..., sky_lw_radiance: float = ..., sun_dir_x: float = ..., sun_dir_y: float = ..., sun_dir_z: float = ..., two_sided: bool = ..., sw_albedos: object = ..., sw_reflectance: object = ..., sw_back_reflectance: object = ..., sw_transmittance: object = ...) -> tuple:
        """Run the energy balance reverse RT kernel. Returns (top, bot) numpy arrays of length n_primitives. bot is empty when two_sided=False. sw_albedos: optional float32[n_primitives] for 2-bounce SW NEE.

        run_energy_balance_cpu on the device: the same arguments, samples and random streams
        (one per primitive), one invocation per primitive summing its samples in 64 bits, so
        the results equal the CPU's to float rounding. band_type other than 0 or 1 is a
        ValueError. Needs 64-bit integers and floats in shaders.
        """
    def run_energy_balance_multiband_gpu(self: VulkanSceneManager, n_bands: int, n_samples: int = ..., max_depth: int = ..., sun_irradiance: object = ..., sky_diffuse_radiance: object = ..., sky_directional_table: object = ..., sun_dir_x: float = ..., sun_dir_y: float = ..., sun_dir_z: float = ..., two_sided: bool = ..., sw_albedos: object = ..., sw_reflectance: object = ..., sw_back_reflectance: object = ..., sw_transmittance: object = ...) -> tuple:
        """Run the multi-band energy-balance reverse-transport kernel. Returns (top, bot, sunlit_fraction). Spectral arrays have shape [n_bands, n_primitives] and sunlit_fraction is per primitive. bot is empty when two_sided=False. Split reflectance/transmittance arrays enable true Mesh multi-scattering; sw_albedos is retained for legacy callers.

        run_energy_balance_multiband_cpu on the device: the same arguments, walks and random
        streams (one per primitive), one invocation per primitive summing its samples in 64
        bits, so the results equal the CPU's to float rounding. Needs 64-bit integers and
        floats in shaders.
        """
    def run_microwave_wavefront(self: VulkanSceneManager, active_mode: bool, max_depth: int, air_temperature: float, atmosphere_tau: float, soil_count: int, vegetation_count: int, trunk_count: int, response_table_size: int, origins: numpy.typing.NDArray[numpy.float32], directions: numpy.typing.NDArray[numpy.float32], material_map: numpy.typing.NDArray[numpy.int32], passive_soil_table: numpy.typing.NDArray[numpy.float32], active_soil_table: numpy.typing.NDArray[numpy.float32], smooth_soil_table: numpy.typing.NDArray[numpy.float32], vegetation_parameters: numpy.typing.NDArray[numpy.float32], trunk_response_table: numpy.typing.NDArray[numpy.float32], trunk_dihedral_scattering: numpy.typing.NDArray[numpy.float32], dihedral_ground_table: numpy.typing.NDArray[numpy.float32], lut_info: numpy.typing.NDArray[numpy.int32], mueller_lut: numpy.typing.NDArray[numpy.float32], cosine_cdf: numpy.typing.NDArray[numpy.float32], azimuth_cdf: numpy.typing.NDArray[numpy.float32]) -> numpy.typing.NDArray[numpy.float32]:
        """The device program of the microwave images on flat arrays: 4 floats a ray in origins
        and directions (x, y, z, unused); returns 4 floats a ray, (T_H, T_V, 0, 0) in K or,
        when active_mode, sigma0 (HH, HV, VH, VV). Tables as the CPU form builds them:
        soil [soil, size, 4|4|2], vegetation_parameters [veg, 4] (kappa_e 1/m, omega,
        temperature K, has a Mueller table), trunk_response_table [trunk, size, 4],
        trunk_dihedral_scattering the trunks' specular Mueller tables, dihedral_ground_table
        [soil, trunk, size, 2], lut_info 9 ints per material (type, Mueller offset, n_cti,
        n_cts, n_dphi, cosine CDF offset, azimuth CDF offset, specular offset, n_specular).
        """
    def sample_combined_free_path(self: VulkanSceneManager, active_medium_ids: numpy.typing.NDArray[numpy.int32], direction: numpy.typing.NDArray[numpy.float32], distance_sample: float, selection_sample: float) -> dict:
        """The tracers' free path through overlapping media: distance = -ln(1 - u) / sigma_total
        (sigma = leaf_area_density * G(direction), summed over the media), and the medium
        hit, chosen by selection_sample in proportion to sigma. Returns 'distance' (the
        largest float when nothing can collide), 'sigma_total', 'selected_slot', 'medium_id'.
        A non-finite number or a zero direction is refused (ValueError naming it).
        """
    def sensor_config(self: VulkanSceneManager) -> dict:
        """The sensor record: 'type', 'width', 'height', 'ortho_width', 'ortho_height', 'fov'
        (radians), 'projection_type' and 'camera_to_world' (16 floats, row-major).
        """
    def set_directional_sky(self: VulkanSceneManager, spectral_offset: int) -> None:
        """Directional sky table [n_bands, 16 zenith rows, 32 azimuth columns] at spectral_offset."""
    def set_emitter(self: VulkanSceneManager, type: int, direction: numpy.typing.NDArray[numpy.float32], spectral_offset: int) -> None:
        """Set the sun. type: 0, a directional sun (the only kind the CPU tracers know; other
        values are kept and treated alike); direction: 3 floats towards the sun, made unit
        length here (a zero vector means no sun); spectral_offset: index of its spectrum,
        n_bands floats of irradiance at normal incidence (W m-2 nm-1), or -1 for no sun.
        """
    def set_hw_sky(self: VulkanSceneManager, spectral_offset: int, sun_x: float, sun_y: float, sun_z: float) -> None:
        """Hosek-Wilkie sky: 10 coefficients per band at spectral_offset, with its own sun
        direction; clears the other skies.
        """
    def set_instance_sif_source_fields(self: VulkanSceneManager, spatial_spectra: numpy.typing.NDArray[numpy.float32], orientation_spectra: numpy.typing.NDArray[numpy.float32], joint_spectra: numpy.typing.NDArray[numpy.float32], direct_joint_spectra: numpy.typing.NDArray[numpy.float32], bounds_min: numpy.typing.NDArray[numpy.float32], bounds_max: numpy.typing.NDArray[numpy.float32], grid_dims: numpy.typing.NDArray[numpy.int32], n_sif_bands: int, spatial_cell_stride: int, orientation_theta_bins: int, orientation_phi_bins: int) -> None:
        """Per-instance SIF source tables in the CPU scene's layout. Leaves inside media read
        them on the CPU; simulate_backward on the device refuses a scene with media that
        has them (optical and SIF modes): the tables are kept for the host.
        """
    def set_instance_sif_spectra(self: VulkanSceneManager, spectra: numpy.typing.NDArray[numpy.float32], n_sif_bands: int) -> None:
        """Upload per-instance TurbidBoundary SIF spectra in band-major layout [n_sif_bands * num_instances]."""
    def set_instance_turbid_thermal_state(self: VulkanSceneManager, temperature_sunlit: numpy.typing.NDArray[numpy.float32], temperature_shaded: numpy.typing.NDArray[numpy.float32], sunlit_fraction: numpy.typing.NDArray[numpy.float32], emissivity: numpy.typing.NDArray[numpy.float32]) -> None:
        """Upload conditional TurbidBoundary thermal state by instance."""
    def set_measurement_plane(self: VulkanSceneManager, height: float) -> None:
        """Height (scene units) of the plane over which photons of a repeated scene start (0.1
        above it) in the flux, forward and BRF runs. Until it is set, the plane is the top
        of the scene box as of the last build(), so photons start above every crown; set
        it lower only on purpose (photons born under a crown make no shadow).
        """
    def set_num_bands(self: VulkanSceneManager, arg0: int) -> None:
        """Number of spectral bands, 1 to 100000; fixes the block length (n floats) of every
        spectral entry.
        """
    def set_optical_turbid_media(self: VulkanSceneManager, leaf_area_density: numpy.typing.NDArray[numpy.float32], leaf_angle_types: numpy.typing.NDArray[numpy.int32], orientations: numpy.typing.NDArray[numpy.int32], leaf_characteristic_lengths: numpy.typing.NDArray[numpy.float32], material_medium_ids: numpy.typing.NDArray[numpy.int32]) -> None:
        """Replace the table of optical turbid media: volumes of leaves bounded by closed
        meshes whose material is listed in material_medium_ids. One entry per medium:
        leaf_area_density (m2 m-3, >= 0); leaf_angle_types 0 spherical, 1 planophile,
        2 erectophile, 3 plagiophile, 4 extremophile, 5 uniform; orientations 1 when the
        medium is inside the bounding mesh (outward-wound), -1 when outside;
        leaf_characteristic_lengths (m, the hot-spot correlation length, 0 for none).
        material_medium_ids: one int per material added so far, -1 for an ordinary surface,
        else the medium it bounds. A bounding surface does not scatter: rays enter or leave
        the medium there, and inside it collide with leaves that scatter with the material
        of the LAST material naming the medium. Every tracer follows the media. In a repeated
        scene, a medium that fills the tile (a leaf layer) should reach slightly past the
        tile walls (by a centimetre, say): faces lying exactly on a wall are ambiguous.
        """
    def set_populate_primitive_soa(self: VulkanSceneManager, arg0: bool) -> None:
        """Enable per-primitive SoA + per-instance lookup tables for the next build(). Required by EB / SIF / RRT-based paths."""
    def set_primitive_emissivities(self: VulkanSceneManager, emissivities: numpy.typing.NDArray[numpy.float32]) -> None:
        """Upload per-primitive emissivities: (n_primitives(),) float32, 0..1."""
    def set_primitive_sif_spectra(self: VulkanSceneManager, spectra: numpy.typing.NDArray[numpy.float32], n_sif_bands: int) -> None:
        """Upload per-primitive SIF emission spectra. spectra: float32[n_sif_bands * n_primitives] SoA (band-major). After upload, the backward kernel emits SIF from each hit primitive."""
    def set_primitive_temperatures(self: VulkanSceneManager, temperatures: numpy.typing.NDArray[numpy.float32]) -> None:
        """Upload per-primitive temperatures (K). Length must equal n_primitives(). Closesthit thermal mode reads these in preference to mat.params[2..4] when set."""
    def set_repetitive(self: VulkanSceneManager, num_repetitions: int, scene_x_size: float, scene_y_size: float) -> None:
        """Repeat the scene as a tile [0, scene_x_size] x [0, scene_y_size]; rays cross up to
        num_repetitions tile walls.
        """
    def set_sensor(self: VulkanSceneManager, type: int, width: int, height: int, ortho_w: float, ortho_h: float, cam_xform: numpy.typing.NDArray[numpy.float32], fov: float = ..., projection_type: int = ..., terrain_following: bool = ...) -> None:
        """Set the sensor. type: 0 orthographic, 1 perspective, 3 pushbroom, 4 fisheye; width,
        height in pixels; ortho_w, ortho_h: orthographic (and pushbroom along-track) extent in
        scene units; cam_xform: row-major 4x4 camera-to-world (up to 16 floats, the camera
        looks down its -z); fov in degrees; projection_type: fisheye mapping (0 equisolid,
        1 equidistant, 2 orthographic, other stereographic). Any other type is refused.
        Image row 0 is the bottom of the picture (camera -y), the last row its top.
        """
    def set_sif_only_mode(self: VulkanSceneManager, enabled: bool) -> None:
        """Enable/disable SIF-only mode. When true the backward kernel returns pure SIF emission and suppresses optical reflectance (BSDF/NEE/sky)."""
    def set_sky(self: VulkanSceneManager, spectral_offset: int) -> None:
        """Uniform sky radiance, n_bands floats at spectral_offset; clears the other skies."""
    def set_thermal_mode(self: VulkanSceneManager, enabled: bool, wavelengths: list[float]) -> None:
        """Switch thermal emission on or off; wavelengths: band centres in nm, one per band."""
    def simulate_active_microwave(self: VulkanSceneManager, frequency: float, mw_soil_params: object, mw_veg_params: object, mw_trunk_params: object, material_map: numpy.typing.NDArray[numpy.int32], mw_veg_mueller_luts: object = ..., mw_trunk_mueller_luts: object = ..., n_channels: int = ..., spp: int = ..., response_table_size: int = ..., threads: int = ...) -> numpy.typing.NDArray[numpy.float32]:
        """Active microwave image: linear sigma0 per unit horizontal area, float32
        [height, width, n_channels]; n_channels 4: HH, HV, VH, VV (Sinclair matrix
        powers), 1: (HH + VV) / 2. Single bounce: soil surface scattering, first-order
        vegetation volume backscatter, the trunk-ground double bounce, two-way canopy
        attenuation; spp jittered rays per pixel (PCG32 per pixel and sample).
        mw_soil_params: float32 [n_soil, >= 10], the soil fields of the evaluators (sand,
        clay, mv, h, nV, nH, Q, T_surface K, T_deep K, dielectric model, rms height m);
        mw_veg_params: float32 [n_veg, >= 3]: 0 extinction coefficient kappa_e (1/m), 1
        single-scattering albedo omega, 2 physical temperature (K); later columns are not read.
        A vegetation material's surfaces bound a volume: a front face enters, a back face
        leaves (optical turbid media whose boundary material maps to vegetation likewise).
        mw_trunk_params: float32 [n_trunk, 7] radius m, length m, moisture, temperature K, axis.
        material_map: int32 per optical material: soil rows first, then vegetation, then
        trunks, as one list; -1 means no microwave response (the surface is crossed).
        mw_veg_mueller_luts: None or one entry per vegetation material, None or
        (mueller (cti, cts, dphi, 4, 4) per unit volume 1/(m sr) in (I_v, I_h, U, V), cos_cdf
        (cti*cts), azimuth_cdf (cti*cts*dphi)); bins uniform in the z cosine over [-1, 1] and
        in azimuth difference over [0, 2 pi). mw_trunk_mueller_luts: the same per trunk, with
        an optional 4th item specular_mueller (n_cos, 4, 4); None selects the Fresnel fallback.
        Tables are evaluated at response_table_size cosines and interpolated linearly.

        On the device (microwave_wavefront.spv, one invocation per ray) with the CPU form's rays, tables and arithmetic; threads is not read.
        """
    def simulate_backward(self: VulkanSceneManager, spp: int = ..., max_depth: int = ..., progress: Optional[Callable[[int, int, float], Any]] = ..., outputs: object = ..., max_output_order: int = ...) -> dict:
        """Render the sensor image by backward path tracing on the device: the path of
        simulate_cpu (same seeds and draws, sun next-event estimation through repeated
        tiles, sky, thermal and SIF emission), one invocation per pixel and sample, summed in
        64 bits, through optical turbid media as on the CPU. Arguments and the returned
        dict as simulate_cpu's; '_execution' names the trace path, as
        'vulkan.ray_query.optical_backward' or 'vulkan.ray_pipeline.optical_backward'.
        """
    def simulate_brf(self: VulkanSceneManager, directions: numpy.typing.NDArray[numpy.float32], num_photons: int, max_depth: int = ..., progress: Optional[Callable[[int, int, float], Any]] = ..., first_photon: int = ...) -> dict:
        """The BRF of simulate_brf_cpu on the device: forward photons under the sun and sky with
        the local estimate towards each direction (flat float3, upward). Returns 'brf'
        (n_directions, bands), 'albedo', 'incident', 'escaped' and '_execution' (as
        'vulkan.ray_query.optical_brf'). Optical turbid media are followed as on the CPU.
        """
    def simulate_flux(self: VulkanSceneManager, nx: int, ny: int, num_photons: int, num_bands: int, prob_sun: float = ..., max_bounces: int = ..., max_depth: int = ..., rr_depth: int = ..., decompose: bool = ..., progress: Optional[Callable[[int, int, float], Any]] = ..., first_photon: int = ...) -> dict:
        """Hemispheric flux grids of simulate_flux_cpu on the device: the same photons (the
        generator of each global photon index), grid, arguments and dict, one invocation per
        photon. Sums are exact fixed-point counts, so they do not depend on how photons fall
        on dispatches; they agree with the CPU's to float rounding. progress(done, total,
        elapsed_ms) runs between dispatches. '_execution' names the trace path, as
        'vulkan.ray_query.optical_flux'. Optical turbid media are followed as on the CPU.
        """
    def simulate_forward_radiation(self: VulkanSceneManager, nx: int = ..., ny: int = ..., layer_heights: object = ..., num_photons: int = ..., num_bands: int = ..., per_leaf: bool = ..., brf_directions: object = ..., num_brf_dirs: int = ..., prob_sun: float = ..., max_depth: int = ..., terrain_instance_id: int = ..., progress: Optional[Callable[[int, int, float], Any]] = ..., first_photon: int = ...) -> dict:
        """Forward photons of simulate_forward_cpu on the device: absorption by layered grid
        cell, per leaf and on the terrain, incident, escaped, transmitted, truncated, albedo
        and the BRF towards brf_directions, through the repeated tiles. Same photons,
        arguments and dict as the CPU entry; exact fixed-point sums, equal to the CPU's to
        float rounding. '_execution' as 'vulkan.ray_query.optical_forward'. Optical turbid
        media are followed as on the CPU, with the hot spot in the BRF estimates.
        """
    def simulate_lidar(self: VulkanSceneManager, pulse_origins: numpy.typing.NDArray[numpy.float32], pulse_directions: numpy.typing.NDArray[numpy.float32], num_pulses: int, beam_half_angle_rad: float = ..., beam_samples_per_dim: int = ..., pulse_energy: float = ..., sensor_area: float = ..., range_resolution: float = ..., min_range: float = ..., max_range: float = ..., num_wavelengths: int = ..., pulse_fwhm_ns: float = ..., peak_threshold: float = ..., max_returns_per_pulse: int = ..., direct_mode: bool = ...) -> dict:
        """simulate_lidar_cpu on the device: the same arguments, rays and returned dict. One
        invocation per pulse traces the direct-mode point or the raw waveform; the
        convolution with the pulse and the peak picking run on the host with the CPU's code.
        Points come in pulse order in both modes. Waveforms follow optical turbid media as
        on the CPU (64-bit shader arithmetic needed then). '_execution' names the path, as
        'vulkan.ray_query.lidar_waveform' or 'vulkan.ray_pipeline.lidar_point_cloud'.
        """
    def simulate_microwave(self: VulkanSceneManager, frequency: float, mw_soil_params: object, mw_veg_params: object, mw_trunk_params: object, material_map: numpy.typing.NDArray[numpy.int32], mw_veg_mueller_luts: object = ..., mw_trunk_mueller_luts: object = ..., n_channels: int = ..., include_atmosphere: bool = ..., atm_tau: float = ..., air_temperature: float = ..., max_depth: int = ..., response_table_size: int = ..., threads: int = ...) -> numpy.typing.NDArray[numpy.float32]:
        """Passive microwave image: brightness temperature (K), float32 [height, width,
        n_channels], one ray through each pixel centre. n_channels 1: (T_H + T_V) / 2;
        2: T_H, T_V; 4: Stokes I = T_V + T_H, Q = T_V - T_H, U = V = 0. Vegetation
        is a tau-omega medium; soil and trunks emit and reflect specularly (up to
        max_depth surface events); escaping rays see 0 K or, with include_atmosphere
        and atm_tau > 0, an isothermal layer at air_temperature (K), also between the
        scene and the sensor. frequency in Hz.
        mw_soil_params: float32 [n_soil, >= 10], the soil fields of the evaluators (sand,
        clay, mv, h, nV, nH, Q, T_surface K, T_deep K, dielectric model, rms height m);
        mw_veg_params: float32 [n_veg, >= 3]: 0 extinction coefficient kappa_e (1/m), 1
        single-scattering albedo omega, 2 physical temperature (K); later columns are not read.
        A vegetation material's surfaces bound a volume: a front face enters, a back face
        leaves (optical turbid media whose boundary material maps to vegetation likewise).
        mw_trunk_params: float32 [n_trunk, 7] radius m, length m, moisture, temperature K, axis.
        material_map: int32 per optical material: soil rows first, then vegetation, then
        trunks, as one list; -1 means no microwave response (the surface is crossed).
        mw_veg_mueller_luts: None or one entry per vegetation material, None or
        (mueller (cti, cts, dphi, 4, 4) per unit volume 1/(m sr) in (I_v, I_h, U, V), cos_cdf
        (cti*cts), azimuth_cdf (cti*cts*dphi)); bins uniform in the z cosine over [-1, 1] and
        in azimuth difference over [0, 2 pi). mw_trunk_mueller_luts: the same per trunk, with
        an optional 4th item specular_mueller (n_cos, 4, 4); None selects the Fresnel fallback.
        Tables are evaluated at response_table_size cosines and interpolated linearly.

        On the device (microwave_wavefront.spv, one invocation per ray) with the CPU form's rays, tables and arithmetic; threads is not read.
        """
    def thermal_mode(self: VulkanSceneManager) -> bool:
        ...
    def total_triangles(self: VulkanSceneManager) -> int:
        """Triangles over all instances (a mesh used twice counts twice)."""
    def trace_closest(self: VulkanSceneManager, origins: numpy.typing.NDArray[numpy.float32], directions: numpy.typing.NDArray[numpy.float32], t_min: float = ..., t_max: float = ...) -> dict:
        """Closest hit of each ray on the built scene. origins, directions: (N, 3) float32.
        Returns 't' (N,) float32 (FLT_MAX on a miss), 'position', 'shading_normal',
        'geometric_normal' (N, 3) float32 (normals face the ray; (0, 0, 1) on a miss),
        'material_id', 'instance_id', 'primitive_id' (N,) int32 (-1 on a miss; primitive ids
        are global) and 'hit' (N,) bool.
        """
    def update_emitter_direction(self: VulkanSceneManager, direction: numpy.typing.NDArray[numpy.float32]) -> None:
        """Re-aim the sun (a vector towards it, made unit length); the spectrum stays."""
    def update_instance_transform(self: VulkanSceneManager, id: int, xform: numpy.typing.NDArray[numpy.float32]) -> None:
        """Replace an instance's 12-float row-major transform. On a built scene the change reaches
        the acceleration structure after refit_ias().
        """
    def update_spectral_params(self: VulkanSceneManager, offset: int, values: numpy.typing.NDArray[numpy.float32]) -> None:
        """Overwrite values.size floats of the spectral buffer from offset, in place; a range
        past the end of the buffer is refused.
        """
    def upload_spectral_params(self: VulkanSceneManager, arg0: numpy.typing.NDArray[numpy.float32]) -> None:
        """Replace the whole spectral parameter buffer (flat float32): reflectances, sun
        spectrum and sky tables, each addressed by its offset.
        """

def _build_turbid_domain_embree(scene: EmbreeSceneManager, request: dict) -> dict:
    """Builds one Turbid domain and commits it: the owners' leaf-area samples
    and their relation table. A failure leaves the scene's domains as they
    were. Returns {'domain_id', 'domain_key', 'n_owners', 'n_samples',
    'sample_budget', 'candidates_tested', 'build_count', 'extension_count'}.
    request (dict): 'owners', a list with one dict per closed leaf volume: 'owner_id' (int,
    or up to three ints: the owner's stable identity, first word non-zero), 'medium_id'
    (int, default the owner id), 'leaf_area_density' m2 m-3, 'leaf_length' m,
    'leaf_angle_distribution' (0 spherical, 1 planophile, 2 erectophile, 3 plagiophile,
    4 extremophile, 5 uniform; default 0), 'closed_orientation' (+1 when the mesh
    winds outward, -1 inward; default +1), 'sidedness' (1 or 2, default 1), optional
    'property_ids' (four ints), optional 'bounds_min'/'bounds_max' (checked against the
    mesh), and the closed mesh: 'vertices' (N, 3) and 'triangles' (M, 3) in world space,
    or 'instance_id' of a scene instance whose mesh it is. Optional configuration:
    'quality' ('preview', 'standard', 'high': 512, 4096, 16384 samples per owner),
    'sample_budget' (0: the quality's), 'seed', 'orientation_theta_bins' (4),
    'orientation_phi_bins' (8), 'max_samples_per_leaf_cell' (64), 'max_candidates' (0:
    1024 per sample), 'contract_revision' (1). Optional 'relations': a scene-relation
    table ('relation_revision', 'owners' [{'owner_id', 'medium_id',
    'authoritative_part_id'}], 'parts' [{'part_id', 'component_id', 'instance_id',
    'backend_instance_id', 'alias_medium_id', 'shift', 'bounds_min', 'bounds_max',
    'volume', 'vertex_offset', 'vertex_count', 'triangle_offset', 'triangle_count'}],
    'vertices', 'triangles', 'overlaps' and 'parent_media' as [n, 2] medium pairs);
    without it, one is made with one authoritative part per owner.
    """

def _build_turbid_domains_embree(scene: EmbreeSceneManager, request: dict) -> list:
    """Builds several Turbid domains in one commit. request: {'domains': [domain request,
    ...], 'global_overlaps': optional [n, 2] pairs of media that may overlap across
    domains}; each domain request as for _build_turbid_domain_embree. All or none are
    committed. Returns one summary per domain.
    """

def _build_turbid_field_embree(scene: EmbreeSceneManager, request: dict) -> dict:
    """Aggregates a current state (any stage) over each owner's volume and leaf
    orientation into a field token. request: 'state' (token dict), 'grid_dims' ([4, 4,
    4]) cells over each owner's sample box, 'theta_bins' (4), 'phi_bins' (8) leaf-normal
    bins (the SIF source tables' cell and bin rules). Returns {'field': token dict
    {'state', 'field_revision'}, 'quantities' (names of the last axis), 'spatial'
    (owners, cells, q), 'orientation' (owners, bins, q), 'joint' (owners, cells, bins,
    q) float32 leaf-area-weighted means (0 where empty), 'leaf_area' (owners, cells) m2,
    'joint_counts', 'grid_dims', 'bounds_min', 'bounds_max'}.
    """

def _build_turbid_sif_source_embree(scene: EmbreeSceneManager, request: dict) -> dict:
    """Fluorescence of a state of stage 2 or 3 as the per-instance SIF source tables of
    set_instance_sif_source_fields, at the scene's bands. Per sample, photons emitted =
    phi_f x absorbed PAR photons per branch, spread by the leaf emission shape (685 and
    740 nm) and emitted half through each Lambertian side: 'sample_shaded' (b, n) is the
    shaded leaf's radiance W m-2 sr-1 nm-1 and 'sample_extra_sunlit' (b, n) what a
    sunlit leaf adds (the tracer weights it by the sun's visibility at the leaf).
    Both are binned by assemble_sif_source_cpu over each owner instance's world box.
    request: 'state', 'grid_dims' ([4, 4, 4]), 'theta_bins' (4), 'phi_bins' (8),
    'apply' (True: set on the scene). Returns the sample spectra, 'sample_photons' (n,)
    umol m-2 s-1, 'emitted_power' (b,) W nm-1 of all samples (both sides, expected),
    the four tables, 'joint_counts' and the grid arguments of the setter.
    """

def _build_turbid_state_embree(scene: EmbreeSceneManager, request: dict) -> dict:
    """Radiation state of a committed Turbid domain under the scene's sun and sky (stage 1).
    request: 'domain_id'; 'rays_per_side' (32) diffuse reverse rays per leaf side;
    'max_depth' (8) scattering events per ray; 'seed' (0); 'threads' (0: all);
    'band_widths' (b,) nm when the scene's spectra are per nm (default: per band).
    Estimator: the sunlit probability is the transmittance to the sun through media and
    mesh (Beer-Lambert, computed); a sunlit leaf absorbs E_sun |n.s| (1 - R - T) on the
    side facing the sun; the diffuse irradiance of each side is pi x the mean radiance
    of cosine-weighted reverse paths (sky at escape, sun by next-event estimation with
    the hot-spot at the first event). Returns {'state': token dict, 'band_wavelengths'
    (b,) nm, 'band_widths' (b,) nm, 'absorbed_top', 'absorbed_bottom' (n, b) float32
    expected absorbed per m2 of leaf in the sun spectrum's units,
    'absorbed_direct_sunlit' (n, b) the direct beam a sunlit leaf absorbs,
    'sunlit_probability', 'direct_share' (n,) 0..1, 'apar', 'apar_sunlit', 'apar_shaded'
    (n,) umol m-2 s-1, 'shortwave_sunlit', 'shortwave_shaded' (n,) W m-2
    summed over bands, '_execution'}. Samples are in the domain's order.
    """

def _build_turbid_thermal_source_embree(scene: EmbreeSceneManager, request: dict) -> dict:
    """Per-instance conditional thermal state from a state of stage 2 or 3: for each
    owner's instance the radiometric mean temperature (sum w T^4 / sum w)^(1/4) of its
    sunlit leaves (w = leaf area x sunlit probability) and of its shaded ones, the
    sunlit fraction and the mean emissivity; 0 for other instances. request: 'state',
    'apply' (True: set_instance_turbid_thermal_state on the scene). Returns the four
    (num_instances,) float32 arrays that setter takes.
    """

def _check_turbid_field_embree(scene: EmbreeSceneManager, field: dict) -> dict:
    """Returns the field token if it is held and its state current; else RuntimeError."""

def _debug_turbid_domain_samples_embree(scene: EmbreeSceneManager, domain_id: int) -> dict:
    """The accepted samples of a committed domain, as the payload of
    _debug_turbid_samples_embree.
    """

def _debug_turbid_residency_embree(scene: EmbreeSceneManager) -> dict:
    """What the scene holds of Turbid domains: per domain its summary and revisions, the
    derived states and fields, 'upload_count' (0 on the CPU), 'allocation_count' (one per
    commit) and the armed commit failure ('' when none).
    """

def _debug_turbid_samples_embree(scene: EmbreeSceneManager, request: dict, quality: str, seed: int, sample_budget: int = ..., max_candidates: int = ...) -> dict:
    """Leaf-area samples of the request's owners by the CPU sampler, without
    storing a domain: scrambled Sobol points inside each closed volume, leaf
    normals by its leaf angle distribution, every accepted point re-checked.
    quality, seed, sample_budget and max_candidates override the request's.
    request (dict): 'owners', a list with one dict per closed leaf volume: 'owner_id' (int,
    or up to three ints: the owner's stable identity, first word non-zero), 'medium_id'
    (int, default the owner id), 'leaf_area_density' m2 m-3, 'leaf_length' m,
    'leaf_angle_distribution' (0 spherical, 1 planophile, 2 erectophile, 3 plagiophile,
    4 extremophile, 5 uniform; default 0), 'closed_orientation' (+1 when the mesh
    winds outward, -1 inward; default +1), 'sidedness' (1 or 2, default 1), optional
    'property_ids' (four ints), optional 'bounds_min'/'bounds_max' (checked against the
    mesh), and the closed mesh: 'vertices' (N, 3) and 'triangles' (M, 3) in world space,
    or 'instance_id' of a scene instance whose mesh it is. Optional configuration:
    'quality' ('preview', 'standard', 'high': 512, 4096, 16384 samples per owner),
    'sample_budget' (0: the quality's), 'seed', 'orientation_theta_bins' (4),
    'orientation_phi_bins' (8), 'max_samples_per_leaf_cell' (64), 'max_candidates' (0:
    1024 per sample), 'contract_revision' (1). Optional 'relations': a scene-relation
    table ('relation_revision', 'owners' [{'owner_id', 'medium_id',
    'authoritative_part_id'}], 'parts' [{'part_id', 'component_id', 'instance_id',
    'backend_instance_id', 'alias_medium_id', 'shift', 'bounds_min', 'bounds_max',
    'volume', 'vertex_offset', 'vertex_count', 'triangle_offset', 'triangle_count'}],
    'vertices', 'triangles', 'overlaps' and 'parent_media' as [n, 2] medium pairs);
    without it, one is made with one authoritative part per owner.
    Returns {'payload': {'semantics', 'sample_id' uint64 (tag << 32 | candidate),
    'position' (n, 3), 'normal' (n, 3), 'leaf_area' m2 (equal per owner; the owner's sum
    is density times volume), 'owner' (n, 3) uint64, 'property_ids' (n, 4),
    'sample_offsets', 'candidates_tested', 'owners'}, '_execution'}.
    """

def _debug_turbid_samples_vulkan(scene: VulkanSceneManager, request: dict, quality: str, seed: int, sample_budget: int = ..., max_candidates: int = ...) -> dict:
    """_debug_turbid_samples_embree with the candidates filled on the Vulkan
    device (turbid_sampling.spv: the same keys, Sobol words, scrambling,
    inside test and leaf normals, in the same integer and float operations);
    every candidate is verified on the host as for the CPU filler, so the
    samples are the CPU's bit for bit.
    request (dict): 'owners', a list with one dict per closed leaf volume: 'owner_id' (int,
    or up to three ints: the owner's stable identity, first word non-zero), 'medium_id'
    (int, default the owner id), 'leaf_area_density' m2 m-3, 'leaf_length' m,
    'leaf_angle_distribution' (0 spherical, 1 planophile, 2 erectophile, 3 plagiophile,
    4 extremophile, 5 uniform; default 0), 'closed_orientation' (+1 when the mesh
    winds outward, -1 inward; default +1), 'sidedness' (1 or 2, default 1), optional
    'property_ids' (four ints), optional 'bounds_min'/'bounds_max' (checked against the
    mesh), and the closed mesh: 'vertices' (N, 3) and 'triangles' (M, 3) in world space,
    or 'instance_id' of a scene instance whose mesh it is. Optional configuration:
    'quality' ('preview', 'standard', 'high': 512, 4096, 16384 samples per owner),
    'sample_budget' (0: the quality's), 'seed', 'orientation_theta_bins' (4),
    'orientation_phi_bins' (8), 'max_samples_per_leaf_cell' (64), 'max_candidates' (0:
    1024 per sample), 'contract_revision' (1). Optional 'relations': a scene-relation
    table ('relation_revision', 'owners' [{'owner_id', 'medium_id',
    'authoritative_part_id'}], 'parts' [{'part_id', 'component_id', 'instance_id',
    'backend_instance_id', 'alias_medium_id', 'shift', 'bounds_min', 'bounds_max',
    'volume', 'vertex_offset', 'vertex_count', 'triangle_offset', 'triangle_count'}],
    'vertices', 'triangles', 'overlaps' and 'parent_media' as [n, 2] medium pairs);
    without it, one is made with one authoritative part per owner.
    """

def _debug_turbid_scene_relations_embree(scene: EmbreeSceneManager) -> dict:
    """The committed scene-relation table: owners with their authoritative parts, parts
    with bounds, volume and geometry ranges, overlaps and parent media.
    """

def _evaluate_microwave_soil(frequency: float, parameters: numpy.typing.NDArray[numpy.float32], cosines: numpy.typing.NDArray[numpy.float32], active: bool) -> numpy.typing.NDArray[numpy.float32]:
    """Bare-soil microwave response per cosine (frequency in Hz, 12 soil parameters). Passive:
    (n, 4) H and V brightness (K), H and V reflectivity; active: sigma0 HH, HV, VH, VV.
    Dobson's model clamps its effective conductivity at 0 S/m: for sand-rich, clay-poor
    soils the published regression goes negative and would give NaN; results differ from
    the regression only there.
    """

def _evaluate_microwave_soil_reflectivity(frequency: float, parameters: numpy.typing.NDArray[numpy.float32], cosines: numpy.typing.NDArray[numpy.float32], allow_hallikainen: bool) -> numpy.typing.NDArray[numpy.float32]:
    """Smooth-soil Fresnel reflectivity per cosine: (n, 2) H and V."""

def _evaluate_microwave_trunk(frequency: float, parameters: numpy.typing.NDArray[numpy.float32], cosines: numpy.typing.NDArray[numpy.float32]) -> numpy.typing.NDArray[numpy.float32]:
    """Trunk surface response per cosine (7 trunk parameters): (n, 4) H and V brightness (K),
    H and V reflectivity.
    """

def _evaluate_microwave_trunk_ground(frequency: float, soil_parameters: numpy.typing.NDArray[numpy.float32], trunk_parameters: numpy.typing.NDArray[numpy.float32], directions_to_trunk: numpy.typing.NDArray[numpy.float32], directions_to_ground: numpy.typing.NDArray[numpy.float32], ground_normals: numpy.typing.NDArray[numpy.float32]) -> numpy.typing.NDArray[numpy.float32]:
    """Trunk-ground double bounce per row: the trunk as a finite dielectric cylinder (infinite-
    cylinder series with a finite-length factor) and the ground's coherent reflection.
    (n, 2) H and V.
    """

def _extend_turbid_samples_embree(scene: EmbreeSceneManager, domain_id: int, sample_budget: int) -> dict:
    """Raises a domain's per-owner sample budget. The samples held stay, unchanged, as the
    first ones of each owner (the candidate sequence does not depend on the budget); only
    the equal sample weight follows the new budget. The domain and sampling revisions
    rise by one. Returns the domain summary.
    """

def _microwave_cylinder_amplitude(frequency: float, radius: float, permittivity: complex, elevation_incident: float, elevation_scattered: float, phi: float) -> numpy.typing.NDArray[numpy.complex128]:
    """Diagnostic: the infinite-cylinder amplitude matrix [[T1, T4], [T3, T2]] (complex128)
    acting on (E_par, E_perp), as the trunk-ground evaluator uses it.
    """

_mw_veg_lut_dims: tuple

def _preflight_turbid_sampling_embree(scene: EmbreeSceneManager, request: dict) -> dict:
    """Checks a domain request without sampling: every owner's closed boundary,
    the configuration and the relation table. Returns per owner its volume m3
    (with the error bound), target leaf area m2, sample weight, stream key and
    tag; and the resolved budget, candidate limit and batch size.
    request (dict): 'owners', a list with one dict per closed leaf volume: 'owner_id' (int,
    or up to three ints: the owner's stable identity, first word non-zero), 'medium_id'
    (int, default the owner id), 'leaf_area_density' m2 m-3, 'leaf_length' m,
    'leaf_angle_distribution' (0 spherical, 1 planophile, 2 erectophile, 3 plagiophile,
    4 extremophile, 5 uniform; default 0), 'closed_orientation' (+1 when the mesh
    winds outward, -1 inward; default +1), 'sidedness' (1 or 2, default 1), optional
    'property_ids' (four ints), optional 'bounds_min'/'bounds_max' (checked against the
    mesh), and the closed mesh: 'vertices' (N, 3) and 'triangles' (M, 3) in world space,
    or 'instance_id' of a scene instance whose mesh it is. Optional configuration:
    'quality' ('preview', 'standard', 'high': 512, 4096, 16384 samples per owner),
    'sample_budget' (0: the quality's), 'seed', 'orientation_theta_bins' (4),
    'orientation_phi_bins' (8), 'max_samples_per_leaf_cell' (64), 'max_candidates' (0:
    1024 per sample), 'contract_revision' (1). Optional 'relations': a scene-relation
    table ('relation_revision', 'owners' [{'owner_id', 'medium_id',
    'authoritative_part_id'}], 'parts' [{'part_id', 'component_id', 'instance_id',
    'backend_instance_id', 'alias_medium_id', 'shift', 'bounds_min', 'bounds_max',
    'volume', 'vertex_offset', 'vertex_count', 'triangle_offset', 'triangle_count'}],
    'vertices', 'triangles', 'overlaps' and 'parent_media' as [n, 2] medium pairs);
    without it, one is made with one authoritative part per owner.
    """

def _set_turbid_commit_failure_embree(scene: EmbreeSceneManager, stage: str) -> None:
    """Arms one failure of the next commit at 'derived_prune_stage', 'table_stage',
    'table_replace' or 'removal' ('' disarms): that commit raises RuntimeError and leaves
    everything as it was; the stage is disarmed as it fires.
    """

def _simulate_brf_exact(scene: EmbreeSceneManager, directions: numpy.typing.NDArray[numpy.float32], num_photons: int, max_depth: int = ..., first_photon: int = ..., sums: object = ...) -> dict:
    """Private, for distributed runs (vesk.distributed). Without sums: the exact sums of
    photons [first_photon, first_photon + num_photons), a dict of 'hi' (int64) and 'lo'
    (uint64) halves of 128-bit fixed-point totals, 'unit_exponents' (int32, one per band),
    'first_photon' and 'num_photons'. Sums of consecutive ranges add exactly (hi and lo
    with a carry). With sums covering the photons of these arguments: the result the
    public entry gives for them, bit for bit.
    """

def _simulate_cpu_rows(scene: EmbreeSceneManager, spp: int = ..., max_depth: int = ..., outputs: object = ..., max_output_order: int = ..., first_row: int = ..., num_rows: int = ...) -> dict:
    """Private, for distributed runs (vesk.distributed): simulate_cpu for image rows
    first_row .. first_row + num_rows - 1 only (num_rows -1: up to the top), which are
    then the result's rows. They equal those rows of the whole image bit for bit.
    """

def _simulate_flux_exact(scene: EmbreeSceneManager, nx: int, ny: int, num_photons: int, num_bands: int, prob_sun: float = ..., max_bounces: int = ..., max_depth: int = ..., rr_depth: int = ..., decompose: bool = ..., first_photon: int = ..., sums: object = ...) -> dict:
    """Private, for distributed runs (vesk.distributed). Without sums: the exact sums of
    photons [first_photon, first_photon + num_photons), a dict of 'hi' (int64) and 'lo'
    (uint64) halves of 128-bit fixed-point totals, 'unit_exponents' (int32, one per band),
    'first_photon' and 'num_photons'. Sums of consecutive ranges add exactly (hi and lo
    with a carry). With sums covering the photons of these arguments: the result the
    public entry gives for them, bit for bit.
    """

def _simulate_forward_exact(scene: EmbreeSceneManager, nx: int = ..., ny: int = ..., layer_heights: object = ..., num_photons: int = ..., num_bands: int = ..., per_leaf: bool = ..., brf_directions: object = ..., num_brf_dirs: int = ..., prob_sun: float = ..., max_depth: int = ..., terrain_instance_id: int = ..., first_photon: int = ..., sums: object = ...) -> dict:
    """Private, for distributed runs (vesk.distributed). Without sums: the exact sums of
    photons [first_photon, first_photon + num_photons), a dict of 'hi' (int64) and 'lo'
    (uint64) halves of 128-bit fixed-point totals, 'unit_exponents' (int32, one per band),
    'first_photon' and 'num_photons'. Sums of consecutive ranges add exactly (hi and lo
    with a carry). With sums covering the photons of these arguments: the result the
    public entry gives for them, bit for bit.
    """

def _solve_turbid_physiology_embree(scene: EmbreeSceneManager, request: dict) -> dict:
    """Physiology on a radiation state (stage 1 in; stage 2 out, or 3 with the energy
    balance). Every sample is a sunlit and a shaded leaf, solved by the leaf solver
    (solve_physiology_cpu) with the state's apar_sunlit / apar_shaded and blended by the
    sunlit probability. request: 'state' (token dict); per sample, one number or an (n,)
    float array: 'temperature' (K, both branches) or 'temperature_sunlit' and
    'temperature_shaded', 'co2' umol mol-1, 'relative_humidity' 0..1, 'pressure' kPa
    (101.325), 'wind' m s-1 (1), 'vcmax25', 'jmax25', 'rd25' umol m-2 s-1,
    'ball_berry_slope', 'ball_berry_intercept' mol m-2 s-1, 'quantum_yield' (0.03),
    'emissivity' (0.98); 'energy_balance' (False): then the branch temperatures are
    solved (the given ones are first guesses) from the branch shortwave plus
    'absorbed_longwave' W m-2, with 'air_temperature' K, 'vapor_pressure' Pa,
    'sidedness' (2), 'leaf_width' m (0.05), 'stomata_sides' (1); 'max_iterations' (100),
    'tolerance' (1e-3). Returns the state arrays with 'an', 'gs', 'phi_f',
    'temperature' and their '_sunlit' / '_shaded' branches, 'converged', and with the
    energy balance 'net_radiation', 'sensible_heat', 'latent_heat' (W m-2).
    """

def _test_turbid_domain_id_exhaustion() -> dict:
    """Spends a domain identifier space and asks it twice more: both requests must fail as
    exhausted. Returns {'first_exhausted', 'second_exhausted'}.
    """

def _turbid_domain_revisions_embree(scene: EmbreeSceneManager, domain_id: int) -> dict:
    """The current revisions of a committed domain, with the relation table's and the
    request contract's.
    """

def _turbid_state_arrays_embree(scene: EmbreeSceneManager, state: dict) -> dict:
    """The arrays of a held, current state (any stage) by its token dict, as the entry
    that made it returned them. A stale token raises RuntimeError.
    """

def _vulkan_validation_message_count() -> int:
    """Messages the Khronos validation layer reported in this process (runs with
    VESK_VULKAN_VALIDATION set); the test suites fail on any.
    """

def assemble_sif_source_cpu(scene: EmbreeSceneManager, request: dict) -> dict:
    """Bin per-sample SIF source spectra into per-instance lookup tables: means over each
    instance's voxel grid (spatial), over leaf-normal orientation bins (orientation),
    and over both (joint), plus the joint table of the directly sunlit share. A joint
    slot without samples is estimated as max(spatial + orientation - instance mean, 0);
    a cell or bin without samples takes the instance mean, an instance without samples
    zeros. Sums are kept in double precision; results are the same for any thread
    count. The scene is not read and need not be built.
    request: 'positions', 'normals' float32 (n_samples, 3) in the instance's frame
    (normals of any length; a zero normal drops the sample, a downward one counts as
    its upward opposite); 'instance_ids' int32 (n_samples,); 'grid_dims' int32
    (n_instances, 3) cells nx, ny, nz; 'bounds_min', 'bounds_max' float32
    (n_instances, 3), the grid's box (a sample outside it by more than 2^-20 of the
    extent is dropped; one on a cell face belongs to the upper cell); 'source',
    'direct_source' float32 (n_bands, n_samples) or flat band after band, the source
    and its directly sunlit share (any unit, never negative, carried through);
    'cell_stride' int, cell slots per instance (at least nx * ny * nz of every instance);
    'theta_bins', 'phi_bins' int, bins of the zenith angle over [0, pi/2] and of the
    azimuth over [0, 2 pi). Returns float32 'spatial_field' (n_instances, cell_stride,
    n_bands), 'orientation_field' (n_instances, theta_bins, phi_bins, n_bands),
    'joint_field' and 'direct_joint_field' (n_instances, cell_stride, theta_bins,
    phi_bins, n_bands) in the source's unit; uint32 sample counts 'spatial_counts'
    (n_instances, cell_stride), 'orientation_counts' (n_instances, theta_bins, phi_bins),
    'joint_counts' (n_instances, cell_stride, theta_bins, phi_bins); and '_execution'.
    Optional 'n_instances', 'n_samples', 'n_bands' give the counts (then every array
    may be flat; 2-D arrays must match them).
    Cell (ix, iy, iz) is slot (iz * ny + iy) * nx + ix. The tables, with n_sif_bands =
    n_bands, are what set_instance_sif_source_fields takes.
    """

def assemble_sif_source_vulkan(scene: VulkanSceneManager, request: dict) -> dict:
    """assemble_sif_source_cpu on the Vulkan device: the same cells, bins and
    face rule, the double sums in the host's order (one invocation per table
    value), so the tables are the host's bit for bit on every run. Executor
    'vulkan.slang.sif_source_assembly'.
    Bin per-sample SIF source spectra into per-instance lookup tables: means over each
    instance's voxel grid (spatial), over leaf-normal orientation bins (orientation),
    and over both (joint), plus the joint table of the directly sunlit share. A joint
    slot without samples is estimated as max(spatial + orientation - instance mean, 0);
    a cell or bin without samples takes the instance mean, an instance without samples
    zeros. Sums are kept in double precision; results are the same for any thread
    count. The scene is not read and need not be built.
    request: 'positions', 'normals' float32 (n_samples, 3) in the instance's frame
    (normals of any length; a zero normal drops the sample, a downward one counts as
    its upward opposite); 'instance_ids' int32 (n_samples,); 'grid_dims' int32
    (n_instances, 3) cells nx, ny, nz; 'bounds_min', 'bounds_max' float32
    (n_instances, 3), the grid's box (a sample outside it by more than 2^-20 of the
    extent is dropped; one on a cell face belongs to the upper cell); 'source',
    'direct_source' float32 (n_bands, n_samples) or flat band after band, the source
    and its directly sunlit share (any unit, never negative, carried through);
    'cell_stride' int, cell slots per instance (at least nx * ny * nz of every instance);
    'theta_bins', 'phi_bins' int, bins of the zenith angle over [0, pi/2] and of the
    azimuth over [0, 2 pi). Returns float32 'spatial_field' (n_instances, cell_stride,
    n_bands), 'orientation_field' (n_instances, theta_bins, phi_bins, n_bands),
    'joint_field' and 'direct_joint_field' (n_instances, cell_stride, theta_bins,
    phi_bins, n_bands) in the source's unit; uint32 sample counts 'spatial_counts'
    (n_instances, cell_stride), 'orientation_counts' (n_instances, theta_bins, phi_bins),
    'joint_counts' (n_instances, cell_stride, theta_bins, phi_bins); and '_execution'.
    Optional 'n_instances', 'n_samples', 'n_bands' give the counts (then every array
    may be flat; 2-D arrays must match them).
    Cell (ix, iy, iz) is slot (iz * ny + iy) * nx + ix. The tables, with n_sif_bands =
    n_bands, are what set_instance_sif_source_fields takes.
    """

def device_info(device_id: int) -> dict:
    """The entry of list_vulkan_devices() at device_id: for a compatible device, the same
    device that VulkanContext(device_id) opens.
    """

def execute_energy_balance_process_cpu(scene: EmbreeSceneManager, request: dict) -> dict:
    """Steady surface temperature of every scene primitive with fixed exchange
    coefficients, the primitives trading longwave with each other and the sky. Per
    element, Newton on Rabs - e s sigma T^4 - Gh (T - Ta) - C (es(T) - ea) - G = 0, inside
    a coupling loop that reruns the longwave transport at the current temperatures.
    The scene must be built; it keeps the emissivities and the final temperatures as
    its per-primitive values. request: 'primitive_material_ids' int32 per primitive
    (optional 'n_elements' must equal its length),
    and per material 'material_active' 0/1, 'material_initial_temperature' K,
    'material_emissivity' 0..1, 'material_sidedness' 1..2 (above 1 the underside takes
    in radiation too), 'material_sensible_derivative' W m-2 K-1 (Gh),
    'material_latent_coefficient' W m-2 Pa-1 (C), 'material_ground_heat' W m-2 (G, a
    sink), 'material_sw_albedo' 0..1; or, without 'primitive_material_ids', the same
    per primitive as 'active', 'initial_temperature', 'emissivity', 'sidedness',
    'sensible_derivative', 'latent_coefficient', 'ground_heat', 'sw_albedo' (with an
    optional 'n_elements' that their lengths must match). Scalars 'air_temperature' K,
    'vapor_pressure' Pa,
    'sky_lw_radiance' W m-2 sr-1; optional 'sw_direct' W m-2 (0), 'sw_diffuse_radiance'
    W m-2 sr-1 (0), 'sun_dir_x', 'sun_dir_y', 'sun_dir_z' toward the sun (0, 0, 1),
    'n_samples' (64), 'max_iterations' (20), 'convergence_tolerance' K (0.01), 'damping'
    (1.0), 'newton_max_iterations' (50), 'newton_tolerance' K (1e-3), and
    'precomputed_shortwave' (False) with 'absorbed_shortwave_top' and '_bottom' per
    primitive in place of the shortwave transport. Returns per-primitive float32
    'temperature', the absorbed short- and longwave (top, bottom, sum), 'emitted_longwave',
    'net_radiation', 'sensible_heat', 'latent_heat', 'ground_heat' W m-2, bool
    'active_mask' and 'element_converged', 'history' (per round {'iteration', 'max_dT'}),
    'iterations', 'converged', 'final_max_temperature_change' and '_execution'.
    """

def execute_energy_balance_process_vulkan(scene: VulkanSceneManager, request: dict) -> dict:
    """execute_energy_balance_process_cpu on the Vulkan scene: the same coupling
    loop and Newton solve on the host, with the shortwave and longwave
    transports of run_energy_balance_gpu; executor
    'vulkan.slang.energy_balance_process'.
    Steady surface temperature of every scene primitive with fixed exchange
    coefficients, the primitives trading longwave with each other and the sky. Per
    element, Newton on Rabs - e s sigma T^4 - Gh (T - Ta) - C (es(T) - ea) - G = 0, inside
    a coupling loop that reruns the longwave transport at the current temperatures.
    The scene must be built; it keeps the emissivities and the final temperatures as
    its per-primitive values. request: 'primitive_material_ids' int32 per primitive
    (optional 'n_elements' must equal its length),
    and per material 'material_active' 0/1, 'material_initial_temperature' K,
    'material_emissivity' 0..1, 'material_sidedness' 1..2 (above 1 the underside takes
    in radiation too), 'material_sensible_derivative' W m-2 K-1 (Gh),
    'material_latent_coefficient' W m-2 Pa-1 (C), 'material_ground_heat' W m-2 (G, a
    sink), 'material_sw_albedo' 0..1; or, without 'primitive_material_ids', the same
    per primitive as 'active', 'initial_temperature', 'emissivity', 'sidedness',
    'sensible_derivative', 'latent_coefficient', 'ground_heat', 'sw_albedo' (with an
    optional 'n_elements' that their lengths must match). Scalars 'air_temperature' K,
    'vapor_pressure' Pa,
    'sky_lw_radiance' W m-2 sr-1; optional 'sw_direct' W m-2 (0), 'sw_diffuse_radiance'
    W m-2 sr-1 (0), 'sun_dir_x', 'sun_dir_y', 'sun_dir_z' toward the sun (0, 0, 1),
    'n_samples' (64), 'max_iterations' (20), 'convergence_tolerance' K (0.01), 'damping'
    (1.0), 'newton_max_iterations' (50), 'newton_tolerance' K (1e-3), and
    'precomputed_shortwave' (False) with 'absorbed_shortwave_top' and '_bottom' per
    primitive in place of the shortwave transport. Returns per-primitive float32
    'temperature', the absorbed short- and longwave (top, bottom, sum), 'emitted_longwave',
    'net_radiation', 'sensible_heat', 'latent_heat', 'ground_heat' W m-2, bool
    'active_mask' and 'element_converged', 'history' (per round {'iteration', 'max_dT'}),
    'iterations', 'converged', 'final_max_temperature_change' and '_execution'.
    """

def execute_photosynthesis_process_dynamic_cpu(scene: EmbreeSceneManager, request: dict) -> dict:
    """Leaf temperature and photosynthesis of every scene primitive, coupled through the
    longwave they exchange: each round runs the longwave transport at the current
    temperatures, then the leaf solver (Farquhar, Ball-Berry, energy balance by Newton)
    per element, and moves the temperatures by 'damping' toward the solved ones until
    they change by less than 'convergence_tolerance' K. The scene must be built; it
    keeps the emissivities and the coupled temperatures as its per-primitive values.
    request, one float32 value per primitive unless noted: 'active', 'fluorescent'
    0/1 flags (inactive elements keep their temperature and report zeros);
    optional 'n_elements' int, which must equal the length of 'active';
    'apar' umol m-2 s-1; 'absorbed_shortwave' W m-2; 'initial_temperature' K;
    'emissivity' 0..1; 'sidedness' 1..2; 'leaf_width' m; 'stomata_sides';
    'vcmax25', 'jmax25', 'rd25' umol m-2 s-1; 'ball_berry_slope';
    'ball_berry_intercept' mol m-2 s-1; 'quantum_yield' 0..1. Scalars: 'co2'
    umol mol-1, 'relative_humidity' 0..1, 'air_temperature' K, 'vapor_pressure' Pa,
    'pressure' kPa, 'wind' m s-1, 'sky_lw_radiance' W m-2 sr-1; optional 'n_samples'
    (64), 'max_iterations' (20), 'convergence_tolerance' (0.01 K), 'damping' (1.0),
    'physiology_max_iterations' (50), 'physiology_tolerance' (1e-3). With 'conditional'
    True, also 'sunlit_fraction', 'apar_sunlit', 'apar_shaded', 'shortwave_sunlit',
    'shortwave_shaded': the result is then the blend f * sunlit + (1 - f) * shaded of two
    leaf solves at the coupled temperature. Returns per-element 'temperature' K, 'an'
    umol m-2 s-1, 'gs' mol m-2 s-1, 'ci', 'phi_f', 'apar', 'active_mask',
    'element_converged', the branch arrays (empty unless conditional),
    'absorbed_longwave_top', '_bottom', 'absorbed_longwave', 'emitted_longwave',
    'net_radiation', 'sensible_heat', 'latent_heat' W m-2, 'history' (per round
    {'iteration', 'max_dT'}), 'iterations', 'converged', 'final_max_temperature_change'
    and '_execution'. Non-convergence is reported, never raised.
    """

def execute_photosynthesis_process_dynamic_vulkan(scene: VulkanSceneManager, request: dict) -> dict:
    """execute_photosynthesis_process_dynamic_cpu on the Vulkan scene: the same
    coupling loop on the host, with the longwave transport of
    run_energy_balance_gpu and the leaf solves of solve_physiology_vulkan, one
    device workspace for all rounds; executor
    'vulkan.slang.photosynthesis_process_dynamic'.
    Leaf temperature and photosynthesis of every scene primitive, coupled through the
    longwave they exchange: each round runs the longwave transport at the current
    temperatures, then the leaf solver (Farquhar, Ball-Berry, energy balance by Newton)
    per element, and moves the temperatures by 'damping' toward the solved ones until
    they change by less than 'convergence_tolerance' K. The scene must be built; it
    keeps the emissivities and the coupled temperatures as its per-primitive values.
    request, one float32 value per primitive unless noted: 'active', 'fluorescent'
    0/1 flags (inactive elements keep their temperature and report zeros);
    optional 'n_elements' int, which must equal the length of 'active';
    'apar' umol m-2 s-1; 'absorbed_shortwave' W m-2; 'initial_temperature' K;
    'emissivity' 0..1; 'sidedness' 1..2; 'leaf_width' m; 'stomata_sides';
    'vcmax25', 'jmax25', 'rd25' umol m-2 s-1; 'ball_berry_slope';
    'ball_berry_intercept' mol m-2 s-1; 'quantum_yield' 0..1. Scalars: 'co2'
    umol mol-1, 'relative_humidity' 0..1, 'air_temperature' K, 'vapor_pressure' Pa,
    'pressure' kPa, 'wind' m s-1, 'sky_lw_radiance' W m-2 sr-1; optional 'n_samples'
    (64), 'max_iterations' (20), 'convergence_tolerance' (0.01 K), 'damping' (1.0),
    'physiology_max_iterations' (50), 'physiology_tolerance' (1e-3). With 'conditional'
    True, also 'sunlit_fraction', 'apar_sunlit', 'apar_shaded', 'shortwave_sunlit',
    'shortwave_shaded': the result is then the blend f * sunlit + (1 - f) * shaded of two
    leaf solves at the coupled temperature. Returns per-element 'temperature' K, 'an'
    umol m-2 s-1, 'gs' mol m-2 s-1, 'ci', 'phi_f', 'apar', 'active_mask',
    'element_converged', the branch arrays (empty unless conditional),
    'absorbed_longwave_top', '_bottom', 'absorbed_longwave', 'emitted_longwave',
    'net_radiation', 'sensible_heat', 'latent_heat' W m-2, 'history' (per round
    {'iteration', 'max_dT'}), 'iterations', 'converged', 'final_max_temperature_change'
    and '_execution'. Non-convergence is reported, never raised.
    """

def execute_photosynthesis_process_static_cpu(scene: EmbreeSceneManager, request: dict) -> dict:
    """Photosynthesis of leaf elements from the spectra they absorbed, at given sunlit and
    shaded leaf temperatures. Each element is solved twice by the leaf model of
    solve_physiology_cpu (no energy balance): as a sunlit leaf, which receives the whole
    direct beam, and as a shaded leaf, which receives the diffuse light alone; the two are
    weighed by the element's sunlit fraction. The scene is not read.
    request: dict of
      'absorbed_top', 'absorbed_bottom', 'absorbed_direct': float32 (elements, bands),
          W m-2 per band absorbed on each side, and the part of their sum that came
          straight from the sun; or flat, element-major, with 'n_elements' and 'n_bands'
          given (counts given beside 2-D arrays must match their shapes);
      'wavelengths': float32 (bands,) nm; only bands in 400..700 nm (inclusive) count as
          PAR, converted to umol m-2 s-1 of photons at the band's wavelength;
      'sunlit_fraction': float32 (elements,) 0..1;
      'temperature_sunlit', 'temperature_shaded': float32 (elements,) K;
      'material_ids': int32 (elements,), -1 for none (the element is then inactive);
      'material_active', 'material_fluorescent': 0/1 flags (materials,); their length is
          the number of materials unless 'n_materials' gives it;
      'vcmax25', 'jmax25', 'rd25' umol m-2 s-1 at 25 C, 'ball_berry_slope',
          'ball_berry_intercept' mol m-2 s-1, 'quantum_yield' 0..1: float32 (materials,);
      'co2' float umol mol-1, 'relative_humidity' float 0..1, 'max_iterations' int and
          'tolerance' float (umol mol-1) of the ci iteration.
    Returns a dict of (elements,) arrays: float32 'temperature' K (blend, set for
    inactive elements too), 'an' umol m-2 s-1 and 'gs' mol m-2 s-1 (blends), 'phi_f'
    (blend, 0 for non-fluorescent materials), 'apar' umol m-2 s-1 (total, not a blend),
    'temperature_sunlit', 'temperature_shaded', 'sunlit_fraction' (as given),
    'apar_sunlit', 'apar_shaded', 'an_sunlit', 'an_shaded'; bool 'active_mask' and
    'converged' (both ci solves converged; never raised); and '_execution'.
    """

def execute_photosynthesis_process_static_vulkan(scene: VulkanSceneManager, request: dict) -> dict:
    """execute_photosynthesis_process_static_cpu on the Vulkan device, one compute
    invocation per element with both leaves; executor
    'vulkan.slang.photosynthesis_process_static'.
    Photosynthesis of leaf elements from the spectra they absorbed, at given sunlit and
    shaded leaf temperatures. Each element is solved twice by the leaf model of
    solve_physiology_cpu (no energy balance): as a sunlit leaf, which receives the whole
    direct beam, and as a shaded leaf, which receives the diffuse light alone; the two are
    weighed by the element's sunlit fraction. The scene is not read.
    request: dict of
      'absorbed_top', 'absorbed_bottom', 'absorbed_direct': float32 (elements, bands),
          W m-2 per band absorbed on each side, and the part of their sum that came
          straight from the sun; or flat, element-major, with 'n_elements' and 'n_bands'
          given (counts given beside 2-D arrays must match their shapes);
      'wavelengths': float32 (bands,) nm; only bands in 400..700 nm (inclusive) count as
          PAR, converted to umol m-2 s-1 of photons at the band's wavelength;
      'sunlit_fraction': float32 (elements,) 0..1;
      'temperature_sunlit', 'temperature_shaded': float32 (elements,) K;
      'material_ids': int32 (elements,), -1 for none (the element is then inactive);
      'material_active', 'material_fluorescent': 0/1 flags (materials,); their length is
          the number of materials unless 'n_materials' gives it;
      'vcmax25', 'jmax25', 'rd25' umol m-2 s-1 at 25 C, 'ball_berry_slope',
          'ball_berry_intercept' mol m-2 s-1, 'quantum_yield' 0..1: float32 (materials,);
      'co2' float umol mol-1, 'relative_humidity' float 0..1, 'max_iterations' int and
          'tolerance' float (umol mol-1) of the ci iteration.
    Returns a dict of (elements,) arrays: float32 'temperature' K (blend, set for
    inactive elements too), 'an' umol m-2 s-1 and 'gs' mol m-2 s-1 (blends), 'phi_f'
    (blend, 0 for non-fluorescent materials), 'apar' umol m-2 s-1 (total, not a blend),
    'temperature_sunlit', 'temperature_shaded', 'sunlit_fraction' (as given),
    'apar_sunlit', 'apar_shaded', 'an_sunlit', 'an_shaded'; bool 'active_mask' and
    'converged' (both ci solves converged; never raised); and '_execution'.
    """

def finalize_sif_process_cpu(scene: EmbreeSceneManager, request: dict) -> dict:
    """Prepare leaf elements for the SIF source: each element's fluorescence yield and its
    absorbed spectra at the bands that excite fluorescence. A validated gather, no
    physics; the scene is not read and need not be built.
    request: 'absorbed_top', 'absorbed_bottom' float32 (n_elements, n_bands), absorbed
    flux per band on each side (any unit, copied as is, never negative), or flat,
    element-major, with 'n_elements' and 'n_bands' given; optional 'n_selected' and
    'n_materials' (counts given must match the arrays);
    'material_ids' int32 (n_elements,), -1 for no material; 'material_phi_f' float32
    (n_materials,) yields 0..1; 'selected_band_indices' int32 (n_selected,), strictly
    increasing band indices; optional 'element_phi_f' float32 (n_elements,) yields 0..1
    that replace the materials' for every element (None or absent: use the materials).
    An element without material and without 'element_phi_f' has yield 0 but keeps its
    spectra. Returns 'phi_f' float32 (n_elements,), 'absorbed_top_selected' and
    'absorbed_bottom_selected' float32 (n_elements, n_selected), the absorbed spectra
    at the selected bands in their order, and '_execution'.
    """

def finalize_sif_process_vulkan(scene: VulkanSceneManager, request: dict) -> dict:
    """finalize_sif_process_cpu on the Vulkan device, one compute invocation per
    element; the same values exactly. Executor
    'vulkan.slang.sif_process_finalization'.
    Prepare leaf elements for the SIF source: each element's fluorescence yield and its
    absorbed spectra at the bands that excite fluorescence. A validated gather, no
    physics; the scene is not read and need not be built.
    request: 'absorbed_top', 'absorbed_bottom' float32 (n_elements, n_bands), absorbed
    flux per band on each side (any unit, copied as is, never negative), or flat,
    element-major, with 'n_elements' and 'n_bands' given; optional 'n_selected' and
    'n_materials' (counts given must match the arrays);
    'material_ids' int32 (n_elements,), -1 for no material; 'material_phi_f' float32
    (n_materials,) yields 0..1; 'selected_band_indices' int32 (n_selected,), strictly
    increasing band indices; optional 'element_phi_f' float32 (n_elements,) yields 0..1
    that replace the materials' for every element (None or absent: use the materials).
    An element without material and without 'element_phi_f' has yield 0 but keeps its
    spectra. Returns 'phi_f' float32 (n_elements,), 'absorbed_top_selected' and
    'absorbed_bottom_selected' float32 (n_elements, n_selected), the absorbed spectra
    at the selected bands in their order, and '_execution'.
    """

def list_vulkan_devices() -> list:
    """Every Vulkan device, ranked: compatible ones first (acceleration structures, buffer
    device addresses, and ray query or ray-tracing pipelines), then discrete, integrated,
    virtual, CPU; then more
    device-local memory. Each is a dict with 'device_index' (its index for VulkanContext,
    -1 when incompatible), 'physical_index', 'name', 'vendor_id', 'device_id',
    'device_type', 'is_discrete', 'api_version', 'device_local_memory_mb',
    'has_compute_queue', 'has_acceleration_structure', 'has_ray_query',
    'has_buffer_device_address', 'compatible', 'unavailable_reason' (empty when
    compatible; 'ray query unavailable' means neither ray query nor ray-tracing
    pipelines), 'has_ray_tracing_pipeline' and 'trace_path': 'ray_query' or
    'ray_pipeline', the path a VulkanContext on it takes (ray query where the device has
    it, unless the environment variable VESK_VULKAN_TRACE=query|pipeline forces one), or
    '' when it cannot be opened. An empty list when the machine has no Vulkan loader or
    driver.
    """

def make_cylinder(radius: float, height: float, segments: int = ...) -> dict:
    """Closed cylinder on the z axis from z = 0 to z = height with `segments` side quads
    (smooth radial normals) and two flat caps. Counter-clockwise seen from outside.
    Returns {'vertices': (N, 3) float32, 'normals': (N, 3) float32, 'indices': (M, 3) int32}.
    """

def make_ground_plane(half_w: float = ..., half_h: float = ..., material_id: int = ..., max_tri_edge: float = ...) -> dict:
    """Flat ground at z = 0 over [-half_w, half_w] x [-half_h, half_h] (scene units), normal +z,
    split into a regular grid so that no triangle edge exceeds max_tri_edge.
    Returns {'vertices': (N, 3) float32, 'normals': (N, 3) float32, 'indices': (M, 3) int32,
    'material_id': int}, ready for scene.add_mesh(**mesh).
    """

def make_sphere(radius: float, center: numpy.typing.NDArray[numpy.float32], subdivisions: int = ...) -> dict:
    """Closed icosphere of the given radius around center (3 floats): 20 * 4**subdivisions
    triangles, counter-clockwise seen from outside, outward unit normals.
    Returns {'vertices': (N, 3) float32, 'normals': (N, 3) float32, 'indices': (M, 3) int32}.
    """

def run_energy_balance_cpu(scene: EmbreeSceneManager, n_samples: int = ..., max_depth: int = ..., band_type: int = ..., sun_irradiance: object = ..., sky_diffuse_radiance: object = ..., sky_lw_radiance: float = ..., sun_dir_x: float = ..., sun_dir_y: float = ..., sun_dir_z: float = ..., two_sided: bool = ..., sw_albedos: object = ..., sw_reflectance: object = ..., sw_back_reflectance: object = ..., sw_transmittance: object = ...) -> tuple:
    """Run the energy balance reverse RT kernel. Returns (top, bot) numpy arrays of length n_primitives. bot is empty when two_sided=False. sw_albedos: optional float32[n_primitives] for 2-bounce SW NEE.

    Flux density in W m-2 reaching each primitive from the hemisphere above (top) and
    below (bot), by n_samples cosine-weighted rays per primitive and side.
    band_type 0 (shortwave): sun_irradiance W m-2 at normal incidence toward
    (sun_dir_x, sun_dir_y, sun_dir_z), sky_diffuse_radiance W m-2 sr-1, and light once
    reflected by primitives of albedo sw_albedos. band_type 1 (longwave): sky_lw_radiance
    W m-2 sr-1 and the emission e sigma T^4 of the primitives hit, from the scene's
    per-primitive temperatures and emissivities (0.97 where none are set). max_depth and
    the split optics are accepted and not read here. Each primitive has its own random
    stream, so results are the same for any thread count.
    """

def run_energy_balance_multiband_cpu(scene: EmbreeSceneManager, n_bands: int, n_samples: int = ..., max_depth: int = ..., sun_irradiance: object = ..., sky_diffuse_radiance: object = ..., sky_directional_table: object = ..., sun_dir_x: float = ..., sun_dir_y: float = ..., sun_dir_z: float = ..., two_sided: bool = ..., sw_albedos: object = ..., sw_reflectance: object = ..., sw_back_reflectance: object = ..., sw_transmittance: object = ...) -> tuple:
    """Run the multi-band energy-balance reverse-transport kernel. Returns (top, bot, sunlit_fraction). Spectral arrays have shape [n_bands, n_primitives] and sunlit_fraction is per primitive. bot is empty when two_sided=False. Split reflectance/transmittance arrays enable true Mesh multi-scattering; sw_albedos is retained for legacy callers.

    Up to 64 bands share one random walk per sample and side, scattering at most
    max_depth times, with the sun added at every event it sees (next-event estimation).
    sun_irradiance, sky_diffuse_radiance: float32[n_bands], W m-2 and W m-2 sr-1.
    sky_directional_table: float32[n_bands * 16 * 32] sky radiance, zenith rows by
    azimuth columns; without it or sky_diffuse_radiance, escaping walks see the
    scene's own sky. Leaf optics, float32[n_bands * n_primitives] band-major:
    sw_reflectance (front), sw_back_reflectance, sw_transmittance, all three or none;
    or sw_albedos, which reflect and never transmit. sunlit_fraction: the share of
    samples that see the sun, both sides added. Each primitive has its own random
    stream, so results are the same for any thread count.
    """

def run_turbid_leaf_rrt_cpu(scene: EmbreeSceneManager, request: dict) -> dict:
    """Longwave exchange between the samples of a committed Turbid domain, the mesh
    primitives (terrain included) and the sky. Each sample is a leaf of its weight's
    area emitting emissivity sigma T^4 / pi from each side; its owner medium gives the
    extinction along paths. Estimator: cosine-weighted reverse rays from each sample
    side and primitive face; at the first leaf collision, surface or escape the path
    collects that emitter's radiance (leaves: the leaf-area mean exitance of the
    bounding instance's samples in the cell of an emission_cells^3 grid over their box),
    then reflects with probability 1 - emissivity;
    absorbed = emissivity x pi x mean radiance. request: 'domain_id'; 'temperature' (n,)
    K or a number, or 'state' (stage 2 or 3: its temperature and emissivity);
    'emissivity' (0.98); 'primitive_temperature', 'primitive_emissivity'
    (n_primitives,) (default the scene's overrides, else the material's temperature and
    1); 'sky_lw_radiance' W m-2 sr-1 (0); 'emission_cells' (4); 'rays_per_side' (16);
    'max_depth' (64);
    'two_sided' (True); 'seed'; 'threads'. Returns float32 'absorbed_top',
    'absorbed_bottom', 'absorbed' (n,) W m-2 of leaf, 'emitted' (n,) W m-2 per side,
    'primitive_absorbed_front', 'primitive_absorbed_back' (n_primitives,) W m-2 (0 on
    media boundaries), '_execution'.
    """

def simulate_active_microwave_cpu(scene: EmbreeSceneManager, frequency: float, mw_soil_params: object, mw_veg_params: object, mw_trunk_params: object, material_map: numpy.typing.NDArray[numpy.int32], mw_veg_mueller_luts: object = ..., mw_trunk_mueller_luts: object = ..., n_channels: int = ..., spp: int = ..., response_table_size: int = ..., threads: int = ...) -> numpy.typing.NDArray[numpy.float32]:
    """Active microwave image: linear sigma0 per unit horizontal area, float32
    [height, width, n_channels]; n_channels 4: HH, HV, VH, VV (Sinclair matrix
    powers), 1: (HH + VV) / 2. Single bounce: soil surface scattering, first-order
    vegetation volume backscatter, the trunk-ground double bounce, two-way canopy
    attenuation; spp jittered rays per pixel (PCG32 per pixel and sample).
    mw_soil_params: float32 [n_soil, >= 10], the soil fields of the evaluators (sand,
    clay, mv, h, nV, nH, Q, T_surface K, T_deep K, dielectric model, rms height m);
    mw_veg_params: float32 [n_veg, >= 3]: 0 extinction coefficient kappa_e (1/m), 1
    single-scattering albedo omega, 2 physical temperature (K); later columns are not read.
    A vegetation material's surfaces bound a volume: a front face enters, a back face
    leaves (optical turbid media whose boundary material maps to vegetation likewise).
    mw_trunk_params: float32 [n_trunk, 7] radius m, length m, moisture, temperature K, axis.
    material_map: int32 per optical material: soil rows first, then vegetation, then
    trunks, as one list; -1 means no microwave response (the surface is crossed).
    mw_veg_mueller_luts: None or one entry per vegetation material, None or
    (mueller (cti, cts, dphi, 4, 4) per unit volume 1/(m sr) in (I_v, I_h, U, V), cos_cdf
    (cti*cts), azimuth_cdf (cti*cts*dphi)); bins uniform in the z cosine over [-1, 1] and
    in azimuth difference over [0, 2 pi). mw_trunk_mueller_luts: the same per trunk, with
    an optional 4th item specular_mueller (n_cos, 4, 4); None selects the Fresnel fallback.
    Tables are evaluated at response_table_size cosines and interpolated linearly.
    """

def simulate_brf_cpu(scene: EmbreeSceneManager, directions: numpy.typing.NDArray[numpy.float32], num_photons: int, max_depth: int = ..., progress: Optional[Callable[[int, int, float], Any]] = ..., first_photon: int = ...) -> dict:
    """Bidirectional reflectance factor of the scene under the sun, by forward photons with
    the local (next-event) estimate of simulate_forward_cpu, unbiased for any surface.
    directions: flat float3, towards the observers, upward. Returns 'brf' (n_directions,
    bands), 'albedo', 'incident', 'escaped' (bands,) and '_execution'.
    first_photon: see simulate_forward_cpu.
    """

def simulate_cpu(scene: EmbreeSceneManager, spp: int = ..., max_depth: int = ..., progress: Optional[Callable[[int, int, float], Any]] = ..., outputs: object = ..., max_output_order: int = ...) -> dict:
    """Render the sensor image by backward path tracing with sun next-event estimation, all
    bands in one path, on every CPU this process may use, or VESK_NUM_THREADS (else
    OMP_NUM_THREADS) threads; the image does not depend on their number. Ctrl-C stops
    the run within a fraction of a second and raises KeyboardInterrupt. While it runs the
    scene is read-only: a progress callback that changes it gets RuntimeError.
    Image rows run bottom to top: row 0 (payload[0]) is the bottom of the picture, so
    flip it (payload[::-1]) to show it the usual way up.
    spp: samples per pixel; max_depth: scattering events, on surfaces and on leaves of
    turbid media (VESK_MAX_DEPTH overrides it);
    progress: None or a callable (done, total, elapsed_ms), called after each sample pass;
    outputs: one or a list of 'radiance', 'standard_error', 'event_aov', 'scattering_order';
    max_output_order: highest scattering order kept on its own.
    Returns {'payload': (height, width, bands) float32 mean radiance (W m-2 sr-1 nm-1 for a
    sun spectrum in W m-2 nm-1), 'standard_error': same shape, 'event_aov': {'surface',
    'medium', 'environment', 'emission'} each (height, width, bands) (sun light scattered
    by surfaces, by leaves of turbid media, seen in the sky or sun, and emitted),
    'scattering_order':
    (max_output_order + 2, height, width, bands) (unscattered, orders 1..max, the rest),
    '_execution': dict}; the optional keys only when requested.
    """

def simulate_flux_cpu(scene: EmbreeSceneManager, nx: int, ny: int, num_photons: int, num_bands: int, prob_sun: float = ..., max_bounces: int = ..., max_depth: int = ..., rr_depth: int = ..., decompose: bool = ..., progress: Optional[Callable[[int, int, float], Any]] = ..., first_photon: int = ...) -> dict:
    """Hemispheric flux grids by forward photon tracing.
    Where the grid lies: the nx x ny grid covers the tile [0, W] x [0, H] of a repeated
    scene, else [0, ortho_w] x [0, ortho_h] of the sensor (its orthographic extent). It
    starts at the world origin and does NOT follow the camera: the camera's position
    and direction are not read, so a scene centred on the origin has only its +x, +y
    quarter in the grid. Build the scene over [0, W] x [0, H] (or repeat it as a tile).
    Cell (j, i) is [i W / nx, (i + 1) W / nx) x [j H / ny, (j + 1) H / ny); surfaces
    outside the grid are not charged. vesk.to_xarray labels the cell centres.
    Values are energy per cell (divide by the cell area for W m-2 nm-1), not flux
    densities.
    Every surface a photon touches is charged to the cell under it: 'downwelling' sums the
    energy arriving at surfaces, 'upwelling' the energy leaving a cell (to another cell or
    out of the scene). max_bounces limits the events charged per photon (0: all);
    decompose adds 'downwelling_direct' (sun photons, all orders) and
    'downwelling_diffuse' (sky photons). prob_sun: share of sun photons when a sky is set.
    Grids are (ny, nx, num_bands) float32 in energy units (sun spectrum times area);
    progress(done, total, elapsed_ms) runs on the calling thread about every quarter of
    a second while photons run, and after every 1048576. Photons of a
    repeated scene start over the measurement plane (set_measurement_plane; by default
    the top of the scene box). first_photon: see simulate_forward_cpu.
    """

def simulate_forward_cpu(scene: EmbreeSceneManager, nx: int = ..., ny: int = ..., layer_heights: object = ..., num_photons: int = ..., num_bands: int = ..., per_leaf: bool = ..., brf_directions: object = ..., num_brf_dirs: int = ..., prob_sun: float = ..., max_depth: int = ..., terrain_instance_id: int = ..., progress: Optional[Callable[[int, int, float], Any]] = ..., first_photon: int = ...) -> dict:
    """Forward photon tracing of absorbed, escaping and reflected energy (fPAR, BRF, albedo).
    Photons leave the sun (and, with a sky set, the sky in the share 1 - prob_sun) over the
    tile of a repeated scene, 0.1 above the measurement plane (set_measurement_plane; by
    default the top of the scene box, so that they start above every crown), or through
    the faces of the box of a finite scene. There, a photon that crosses the box and
    leaves by a side or the top without touching anything passed the scene by: it is not
    counted at all, so 'incident' is what reaches the scene or its floor. All energies are
    absolute, per band: the sun spectrum (W m-2 nm-1 at normal incidence) or sky radiance
    times area; divide by 'incident' for fractions.
    The nx x ny grid covers the tile [0, W] x [0, H] of a repeated scene, else the scene
    box; layer_heights (1-D, strictly increasing boundaries) splits it in z into
    len - 1 layers, [h_k, h_k+1) with the top boundary in the top layer; None: one layer.
    Absorption at an event is the energy the event takes from the photon, charged to the
    cell and layer of the hit (unbiased; single samples can be negative where a sampled
    direction's weight exceeds 1).
    Keys: 'grid' (nz, ny, nx, bands) absorbed by everything but the terrain instance (by
    everything, ground included, when terrain_instance_id is -1),
    split into 'grid_direct' (sun photons, all orders) and 'grid_diffuse' (sky photons);
    'leaf' (n_primitives, bands) absorbed per primitive, with per_leaf (leaves of turbid
    media have no primitive: their absorption is in 'grid' only); 'terrain' (ny, nx,
    bands) absorbed by instance terrain_instance_id, when it is >= 0; 'incident' (bands,)
    entering the scene, and 'incident_grid' (ny, nx, bands) the same split by the grid
    column it came in by (where it crossed the measurement plane of a repeated scene or
    the top of a finite scene's box; through a side of the box: the edge column), so that
    grid.sum(axis=0) / incident_grid is the fraction absorbed per column (fAPAR per cell
    in a PAR band); 'escaped' leaving it upward; 'transmitted' leaving it downward;
    'absorbed_outside' absorbed outside the grid or its layers; 'truncated' still carried
    by photons stopped by max_depth (or a vanishing weight), reported, not lost; 'albedo'
    escaped / incident; 'brf' (num_brf_dirs, bands) for the first num_brf_dirs upward
    directions of brf_directions (flat float3). Conservation, up to Russian-roulette
    noise: incident = grid + terrain + absorbed_outside + escaped + transmitted + truncated.
    BRF estimator: the local (next-event) estimate pi * sum(E f(l, v) |cos v| V) /
    (cos(theta_v) * incident) over all surface events, with each material's own BRDF f
    and the visibility V of the observer through the repeated tiles: unbiased for any
    surface.
    first_photon (a multiple of 4096, default 0): trace photons first_photon ..
    first_photon + num_photons - 1 of the global numbering (each photon has its own
    random stream), so that runs over disjoint ranges are independent. Results are the
    same, bit for bit, whatever the thread count: photons are summed per 4096 in a fixed
    order, and those sums exactly (in fixed point).
    """

def simulate_lidar_cpu(scene: EmbreeSceneManager, pulse_origins: numpy.typing.NDArray[numpy.float32], pulse_directions: numpy.typing.NDArray[numpy.float32], num_pulses: int, beam_half_angle_rad: float = ..., beam_samples_per_dim: int = ..., pulse_energy: float = ..., sensor_area: float = ..., range_resolution: float = ..., min_range: float = ..., max_range: float = ..., num_wavelengths: int = ..., pulse_fwhm_ns: float = ..., peak_threshold: float = ..., max_returns_per_pulse: int = ..., direct_mode: bool = ...) -> dict:
    """Pulsed laser scanner. pulse_origins, pulse_directions: flat float32, 3 per pulse (unit
    directions). direct_mode: one ray a pulse, a point at the first surface with intensity
    |cos| rho E A / (pi d^2) (rho: band 0). Waveform mode: a Gaussian-weighted grid of
    (beam_samples_per_dim + 1)^2 rays inside the beam cone (half angle in rad), each
    returning rho E (A / R^2) |cos| / pi from the first surface, attenuated by turbid media
    on the way out, plus single-scattering volume returns of the leaves of the media;
    binned every range_resolution m over [min_range, max_range], convolved with a Gaussian
    pulse of pulse_fwhm_ns, and peak-picked (strict local maxima above peak_threshold, the
    nearest max_returns_per_pulse). num_wavelengths bands are read from each material.
    Returns 'waveform' (num_pulses, num_bins, num_wavelengths) float32 (left unfilled in
    direct mode), 'points' (num_returns, 8) float32 records: x, y, z, intensity, return
    number, returns of the pulse, range m, pulse index (in pulse order in waveform mode,
    by worker in direct mode), 'num_bins', 'num_returns' and '_execution'.
    """

def simulate_microwave_cpu(scene: EmbreeSceneManager, frequency: float, mw_soil_params: object, mw_veg_params: object, mw_trunk_params: object, material_map: numpy.typing.NDArray[numpy.int32], mw_veg_mueller_luts: object = ..., mw_trunk_mueller_luts: object = ..., n_channels: int = ..., include_atmosphere: bool = ..., atm_tau: float = ..., air_temperature: float = ..., max_depth: int = ..., response_table_size: int = ..., threads: int = ...) -> numpy.typing.NDArray[numpy.float32]:
    """Passive microwave image: brightness temperature (K), float32 [height, width,
    n_channels], one ray through each pixel centre. n_channels 1: (T_H + T_V) / 2;
    2: T_H, T_V; 4: Stokes I = T_V + T_H, Q = T_V - T_H, U = V = 0. Vegetation
    is a tau-omega medium; soil and trunks emit and reflect specularly (up to
    max_depth surface events); escaping rays see 0 K or, with include_atmosphere
    and atm_tau > 0, an isothermal layer at air_temperature (K), also between the
    scene and the sensor. frequency in Hz.
    mw_soil_params: float32 [n_soil, >= 10], the soil fields of the evaluators (sand,
    clay, mv, h, nV, nH, Q, T_surface K, T_deep K, dielectric model, rms height m);
    mw_veg_params: float32 [n_veg, >= 3]: 0 extinction coefficient kappa_e (1/m), 1
    single-scattering albedo omega, 2 physical temperature (K); later columns are not read.
    A vegetation material's surfaces bound a volume: a front face enters, a back face
    leaves (optical turbid media whose boundary material maps to vegetation likewise).
    mw_trunk_params: float32 [n_trunk, 7] radius m, length m, moisture, temperature K, axis.
    material_map: int32 per optical material: soil rows first, then vegetation, then
    trunks, as one list; -1 means no microwave response (the surface is crossed).
    mw_veg_mueller_luts: None or one entry per vegetation material, None or
    (mueller (cti, cts, dphi, 4, 4) per unit volume 1/(m sr) in (I_v, I_h, U, V), cos_cdf
    (cti*cts), azimuth_cdf (cti*cts*dphi)); bins uniform in the z cosine over [-1, 1] and
    in azimuth difference over [0, 2 pi). mw_trunk_mueller_luts: the same per trunk, with
    an optional 4th item specular_mueller (n_cos, 4, 4); None selects the Fresnel fallback.
    Tables are evaluated at response_table_size cosines and interpolated linearly.
    """

def solve_physiology_cpu(scene: EmbreeSceneManager, request: dict) -> dict:
    """Leaf physiology per element: Farquhar photosynthesis, Ball-Berry stomata, a
    fluorescence yield and, with 'dynamic_energy_balance', the leaf temperature from a
    one-leaf energy balance (Newton). request: dict of float32 arrays, one value per
    element unless noted: 'apar' (elements, bands) absorbed PAR, umol m-2 s-1, summed
    over bands; 'temperature' (elements,) K; 'co2' umol mol-1; 'relative_humidity' 0..1;
    'vpd'; 'pressure' kPa; 'wind' m s-1; 'vcmax25', 'jmax25', 'rd25' umol m-2 s-1 at
    25 C; 'ball_berry_slope'; 'ball_berry_intercept' mol m-2 s-1; 'quantum_yield' 0..1;
    'max_iterations' int and 'tolerance' float shared by the ci and temperature
    iterations; optional 'dynamic_energy_balance' bool, which needs
    'absorbed_shortwave', 'absorbed_longwave' W m-2, 'air_temperature' K,
    'vapor_pressure' Pa, 'emissivity', 'sidedness', 'leaf_width' m, 'stomata_sides',
    with the leaf temperature solved by Newton. Optional 'n_elements', 'n_bands' must
    match apar's shape; 'solve_leaf_temperature' and 'read_back_outputs' are accepted
    and change nothing here (this form always solves and reads everything back).
    Returns float32 'an' umol m-2 s-1, 'gs' mol m-2 s-1, 'ci' umol mol-1, 'phi_f', bool
    'converged' (non-convergence is reported here, never raised), with the energy
    balance also 'temperature' K, 'net_radiation', 'sensible_heat', 'latent_heat'
    W m-2, and '_execution'.
    """

def solve_physiology_vulkan(scene: VulkanSceneManager, request: dict) -> dict:
    """solve_physiology_cpu on the Vulkan device: one compute invocation per
    element, the same float operations in the same order (bit-equal where the
    device rounds division and square root as IEEE 754 does, as lavapipe
    does); executor 'vulkan.slang.physiology_solver'. The scene's device
    workspace is kept for the next call of the same shape.
    Leaf physiology per element: Farquhar photosynthesis, Ball-Berry stomata, a
    fluorescence yield and, with 'dynamic_energy_balance', the leaf temperature from a
    one-leaf energy balance (Newton). request: dict of float32 arrays, one value per
    element unless noted: 'apar' (elements, bands) absorbed PAR, umol m-2 s-1, summed
    over bands; 'temperature' (elements,) K; 'co2' umol mol-1; 'relative_humidity' 0..1;
    'vpd'; 'pressure' kPa; 'wind' m s-1; 'vcmax25', 'jmax25', 'rd25' umol m-2 s-1 at
    25 C; 'ball_berry_slope'; 'ball_berry_intercept' mol m-2 s-1; 'quantum_yield' 0..1;
    'max_iterations' int and 'tolerance' float shared by the ci and temperature
    iterations; optional 'dynamic_energy_balance' bool, which needs
    'absorbed_shortwave', 'absorbed_longwave' W m-2, 'air_temperature' K,
    'vapor_pressure' Pa, 'emissivity', 'sidedness', 'leaf_width' m, 'stomata_sides',
    with the leaf temperature solved by Newton. Optional 'n_elements', 'n_bands' must
    match apar's shape; 'solve_leaf_temperature' and 'read_back_outputs' are accepted
    and change nothing here (this form always solves and reads everything back).
    Returns float32 'an' umol m-2 s-1, 'gs' mol m-2 s-1, 'ci' umol mol-1, 'phi_f', bool
    'converged' (non-convergence is reported here, never raised), with the energy
    balance also 'temperature' K, 'net_radiation', 'sensible_heat', 'latent_heat'
    W m-2, and '_execution'.
    """

__version__: str
