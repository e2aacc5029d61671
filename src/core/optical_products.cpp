#include "core/optical_products.h"

#include <cmath>
#include <stdexcept>

namespace vesk::backend {

std::string OpticalProductRequest::to_string() const {
  return std::string("OpticalProductRequest(standard_error=") + (standard_error ? "1" : "0") +
         ", event_aov=" + (event_aov ? "1" : "0") +
         ", scattering_order=" + (scattering_order ? "1" : "0") +
         ", max_output_order=" + std::to_string(max_output_order) + ")";
}

OpticalProductRequest parse_optical_outputs(const std::vector<std::string>& names,
                                            int32_t max_output_order) {
  OpticalProductRequest r;
  r.max_output_order = max_output_order;
  for (const std::string& n : names) {
    if (n == "radiance") continue;  // the payload always exists
    if (n == "standard_error")
      r.standard_error = true;
    else if (n == "event_aov")
      r.event_aov = true;
    else if (n == "scattering_order")
      r.scattering_order = true;
    else
      throw std::invalid_argument("unknown optical output name: " + n);
  }
  if (r.scattering_order && max_output_order < 0)
    throw std::invalid_argument("max_output_order must be non-negative");
  if (r.scattering_order && max_output_order > MAX_OUTPUT_ORDER)
    throw std::invalid_argument("max_output_order must not exceed " +
                                std::to_string(MAX_OUTPUT_ORDER));
  return r;
}

OpticalFilm::OpticalFilm(const OpticalProductRequest& req, int32_t w, int32_t h, int32_t b)
    : width(w), height(h), bands(b), request(req) {
  order_count = req.scattering_order ? req.max_output_order + 2 : 0;
  sum.assign(plane(), 0.0);
  if (req.standard_error) sum_sq.assign(plane(), 0.0);
  if (req.event_aov) aov.assign(EVENT_SLOTS * plane(), 0.0);
  if (req.scattering_order) orders.assign(size_t(order_count) * plane(), 0.0);
}

OpticalProductResult OpticalFilm::finish(int32_t spp) const {
  OpticalProductResult r;
  r.width = width, r.height = height, r.bands = bands, r.order_count = order_count;
  r.request = request;
  const double inv = 1.0 / double(spp);
  auto mean = [inv](const std::vector<double>& s) {
    std::vector<float> out(s.size());
    for (size_t i = 0; i < s.size(); ++i) out[i] = static_cast<float>(s[i] * inv);
    return out;
  };
  r.payload = mean(sum);
  r.event_aov = mean(aov);
  r.scattering_order = mean(orders);
  if (request.standard_error) {
    r.standard_error.assign(plane(), 0.0f);
    if (spp >= 2) {
      const double n = spp;
      for (size_t i = 0; i < plane(); ++i) {
        const double v = (sum_sq[i] - sum[i] * sum[i] / n) / (n - 1.0);
        r.standard_error[i] = v >= 0.0 ? static_cast<float>(std::sqrt(v / n)) : 0.0f;
      }
    }
  }
  return r;
}

}  // namespace vesk::backend
