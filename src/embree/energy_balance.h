#pragma once
// Radiation reaching every scene primitive, traced backward from the primitive: the flux
// density (W m-2) arriving from the hemisphere above it (top) and below it (bot). The
// single-band kernel does one band, shortwave or longwave, with one bounce; the
// multi-band kernel walks through reflecting and transmitting leaves, all bands on one
// path, with next-event estimation toward the sun.

#include "scene/energy_balance_request.h"

namespace vesk::embree {

class EmbreeSceneManager;

using scene::EnergyBalanceRequest;
using scene::EnergyBalanceResult;
using scene::MAX_EB_BANDS;
using scene::MultibandEnergyBalanceRequest;
using scene::MultibandEnergyBalanceResult;
using scene::validate_energy_balance;
using scene::validate_energy_balance_multiband;

// The kernels; callers validate first. Results are resized and overwritten, so coupling
// loops reuse their storage. With no primitives or no bands they return empty or zero
// results without starting a worker. Each primitive draws from its own random stream,
// so results do not depend on the thread count.
void render_energy_balance(const EmbreeSceneManager& scene, const EnergyBalanceRequest& r,
                           EnergyBalanceResult& out);
void render_energy_balance_multiband(const EmbreeSceneManager& scene,
                                     const MultibandEnergyBalanceRequest& r,
                                     MultibandEnergyBalanceResult& out);

}  // namespace vesk::embree
