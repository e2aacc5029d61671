#pragma once
// Up-front refusal of requests whose working memory cannot fit in this machine, with a
// message that names the size, instead of failing half-way through an allocation.

#include <stdexcept>
#include <string>

namespace vesk {

// Bound to Python as MemoryError.
class RequestTooLarge : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

// Throws RequestTooLarge "<what> needs <n> GB of memory, more than the <m> GB of this
// machine" when bytes exceed the physical memory.
void check_request_memory(const std::string& what, double bytes);

}  // namespace vesk
