#version 460
// SIF source assembly in stages, one program: the stage in the push constants picks what
// an invocation does.
//  0 classify: a sample's joint slot (instance, cell, bin), -1 when unusable, or -2 when
//    the device's own division, acos or atan2 could round it across a cell face or a bin
//    edge: the host settles those by the exact rule, so every slot is the host's.
//  1 sums: per (slot, band) the source and direct sums over the slot's samples in
//    sample order, in double: the host's additions in the host's order, so the same bits.
//  2 per (row, band) the spatial sum over bins, per (instance, bin, band) the orientation
//    sum over cells, per (instance, band) the direct sum over cells and bins.
//  3 per (instance, band) the source sum over the cells' spatial sums.
//  4 the spatial and orientation means; 5 the joint means and the additive estimate.
#extension GL_EXT_shader_explicit_arithmetic_types_float64 : require
layout(local_size_x = 64) in;

layout(std430, binding = 0) readonly buffer Positions { float positions[]; };
layout(std430, binding = 1) readonly buffer Normals { float normals[]; };
layout(std430, binding = 2) readonly buffer InstanceIds { int instance_ids[]; };
layout(std430, binding = 3) readonly buffer GridDims { int grid_dims[]; };
layout(std430, binding = 4) readonly buffer BoundsMin { float bounds_min[]; };
layout(std430, binding = 5) readonly buffer BoundsMax { float bounds_max[]; };
layout(std430, binding = 6) buffer Slots { int slot_of[]; };
layout(std430, binding = 7) readonly buffer Source { float source[]; };
layout(std430, binding = 8) readonly buffer Direct { float direct[]; };
layout(std430, binding = 9) readonly buffer Order { uint order[]; };
layout(std430, binding = 10) readonly buffer SlotStart { uint slot_start[]; };
layout(std430, binding = 11) buffer CellSums { double cell_sum[]; };          // [slot][band][2]
layout(std430, binding = 12) buffer SpatialSums { double spatial_sum[]; };    // [row][band]
layout(std430, binding = 13) buffer OrientationSums { double orient_sum[]; }; // [k, bin][band]
layout(std430, binding = 14) buffer InstanceSums { double instance_sum[]; };  // [k][band][2]
layout(std430, binding = 15) readonly buffer JointCounts { uint joint_count[]; };
layout(std430, binding = 16) readonly buffer SpatialCounts { uint spatial_count[]; };
layout(std430, binding = 17) readonly buffer OrientationCounts { uint orient_count[]; };
layout(std430, binding = 18) readonly buffer InstanceCounts { uint instance_count[]; };
layout(std430, binding = 19) buffer SpatialField { float spatial_field[]; };
layout(std430, binding = 20) buffer OrientationField { float orientation_field[]; };
layout(std430, binding = 21) writeonly buffer JointField { float joint_field[]; };
layout(std430, binding = 22) writeonly buffer DirectJointField { float direct_joint_field[]; };

layout(push_constant) uniform Push {
  uint stage, count, n_samples, n_instances, n_bands, cell_stride, bins, theta_bins, phi_bins;
} pc;

const int UNSURE = -2;

// True when t, a position in cell or bin units, lies within gap of a whole number, where
// the rule's own roundings decide the side.
bool near_edge(float t, float gap) {
  precise float f = t - floor(t);
  return f < gap || f > 1.0 - gap;
}

// Vulkan lets acos and atan2 err by up to 4096 ulp (about 1e-3 rad near pi); bins are
// settled only this far from their edges.
const float ANGLE_GAP = 2e-3;

// The cell along one axis by the rule's exact steps (+, -, * are correctly rounded on
// every device), or -1; UNSURE where a division decides.
int axis_cell(float position, float lo, float hi, int n) {
  precise float x = position - lo;
  precise float e = hi - lo;
  if (n < 1 || !(e >= 1.1754944e-38) || !(e <= 3.4028235e38) || isnan(x) || isinf(x)) return -1;
  if (e < 1e-30 || (x != 0.0 && abs(x) < 1e-30)) return UNSURE;  // denormals may flush
  precise float margin = e * 9.536743e-07;
  if (x < -margin || x > e + margin) return -1;
  x = clamp(x, 0.0, e);
  precise float t = (x / e) * float(n);
  if (near_edge(t, 4e-6 * max(t, 1.0)) && t > 0.0 && x < e) return UNSURE;
  return min(int(t), n - 1);
}

int orientation_bin(vec3 nrm) {
  precise float ll = nrm.x * nrm.x + nrm.y * nrm.y + nrm.z * nrm.z;
  if (!(ll > 0.0)) return -1;
  if (ll < 1e-30) return UNSURE;
  precise float l = sqrt(ll);
  precise vec3 u = nrm / l;
  if (u.z < 0.0) u = -u;
  if (u.x * u.x + u.y * u.y < 1e-10) return UNSURE;  // the azimuth of a vertical normal
  precise float theta = acos(clamp(u.z, 0.0, 1.0));
  precise float tt = (theta / 1.5707964) * float(pc.theta_bins);
  precise float phi = atan(u.y, u.x);
  if (phi < 0.0) phi += 6.2831855;
  precise float pp = (phi / 6.2831855) * float(pc.phi_bins);
  if (near_edge(tt, ANGLE_GAP * float(pc.theta_bins) / 1.5707964) ||
      near_edge(pp, ANGLE_GAP * float(pc.phi_bins) / 6.2831855))
    return UNSURE;
  int ti = min(int(tt), int(pc.theta_bins) - 1);
  int pj = min(int(pp), int(pc.phi_bins) - 1);
  return ti * int(pc.phi_bins) + pj;
}

void classify(uint i) {
  int k = instance_ids[i];
  int cell[3];
  bool unsure = false;
  for (int a = 0; a < 3; ++a) {
    cell[a] = axis_cell(positions[3 * i + a], bounds_min[3 * k + a], bounds_max[3 * k + a],
                        grid_dims[3 * k + a]);
    if (cell[a] == -1) {
      slot_of[i] = -1;
      return;
    }
    unsure = unsure || cell[a] == UNSURE;
  }
  int bin = orientation_bin(vec3(normals[3 * i], normals[3 * i + 1], normals[3 * i + 2]));
  if (bin == -1) {
    slot_of[i] = -1;
    return;
  }
  if (unsure || bin == UNSURE) {
    slot_of[i] = UNSURE;
    return;
  }
  // Cells fit the stride, which the host checked to fit int32 with the bins.
  int c = (cell[2] * grid_dims[3 * k + 1] + cell[1]) * grid_dims[3 * k] + cell[0];
  slot_of[i] = (k * int(pc.cell_stride) + c) * int(pc.bins) + bin;
}

void main() {
  uint id = gl_GlobalInvocationID.y * gl_NumWorkGroups.x * 64u + gl_GlobalInvocationID.x;
  if (id >= pc.count) return;
  uint nb = pc.n_bands;
  if (pc.stage == 0u) {
    classify(id);
  } else if (pc.stage == 1u) {
    uint q = id / nb, b = id % nb;
    precise double s = 0.0lf, d = 0.0lf;
    for (uint j = slot_start[q]; j < slot_start[q + 1]; ++j) {
      uint i = order[j];
      s += double(source[b * pc.n_samples + i]);
      d += double(direct[b * pc.n_samples + i]);
    }
    cell_sum[2 * id] = s;
    cell_sum[2 * id + 1] = d;
  } else if (pc.stage == 2u) {
    uint rows = pc.n_instances * pc.cell_stride, orients = pc.n_instances * pc.bins;
    if (id < rows * nb) {
      uint row = id / nb, b = id % nb;
      precise double s = 0.0lf;
      for (uint o = 0; o < pc.bins; ++o) s += cell_sum[2 * ((row * pc.bins + o) * nb + b)];
      spatial_sum[id] = s;
    } else if (id < (rows + orients) * nb) {
      uint q = id - rows * nb, ko = q / nb, b = q % nb, k = ko / pc.bins, o = ko % pc.bins;
      precise double s = 0.0lf;
      for (uint c = 0; c < pc.cell_stride; ++c)
        s += cell_sum[2 * (((k * pc.cell_stride + c) * pc.bins + o) * nb + b)];
      orient_sum[q] = s;
    } else {
      uint q = id - (rows + orients) * nb, k = q / nb, b = q % nb;
      precise double d = 0.0lf;
      for (uint c = 0; c < pc.cell_stride; ++c)
        for (uint o = 0; o < pc.bins; ++o)
          d += cell_sum[2 * (((k * pc.cell_stride + c) * pc.bins + o) * nb + b) + 1];
      instance_sum[2 * q + 1] = d;
    }
  } else if (pc.stage == 3u) {
    uint k = id / nb, b = id % nb;
    precise double s = 0.0lf;
    for (uint c = 0; c < pc.cell_stride; ++c) s += spatial_sum[(k * pc.cell_stride + c) * nb + b];
    instance_sum[2 * id] = s;
  } else if (pc.stage == 4u) {
    uint rows = pc.n_instances * pc.cell_stride;
    bool spatial = id < rows * nb;
    uint q = spatial ? id : id - rows * nb, r = q / nb, b = q % nb;
    uint k = spatial ? r / pc.cell_stride : r / pc.bins;
    uint count = spatial ? spatial_count[r] : orient_count[r];
    double sum = spatial ? spatial_sum[q] : orient_sum[q];
    uint nk = instance_count[k];
    precise float mean = count > 0u ? float(sum / double(count))
                         : nk > 0u  ? float(instance_sum[2 * (k * nb + b)] / double(nk))
                                    : 0.0;
    if (spatial)
      spatial_field[q] = mean;
    else
      orientation_field[q] = mean;
  } else {
    uint q = id / nb, b = id % nb, row = q / pc.bins, o = q % pc.bins, k = row / pc.cell_stride;
    uint count = joint_count[q], nk = instance_count[k];
    if (count > 0u) {
      joint_field[id] = float(cell_sum[2 * id] / double(count));
      direct_joint_field[id] = float(cell_sum[2 * id + 1] / double(count));
    } else {
      // The instance mean moved by this cell's and this orientation's departures from it.
      precise double mean = nk > 0u ? instance_sum[2 * (k * nb + b)] / double(nk) : 0.0lf;
      precise double estimate = double(spatial_field[row * nb + b]) +
                                double(orientation_field[(k * pc.bins + o) * nb + b]) - mean;
      joint_field[id] = float(estimate < 0.0lf ? 0.0lf : estimate);
      direct_joint_field[id] = nk > 0u ? float(instance_sum[2 * (k * nb + b) + 1] / double(nk)) : 0.0;
    }
  }
}
