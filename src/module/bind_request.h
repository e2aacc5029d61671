#pragma once
// Reading process requests (dicts of arrays and scalars) at the binding edge: typed
// lookups with errors that name the key, arrays kept alive for the call, and a warning
// for keys that no entry reads.

#include <cmath>
#include <initializer_list>
#include <limits>
#include <type_traits>
#include <string>
#include <vector>

#include "module/bind_common.h"
#include "core/span.h"

namespace vesk::module {

inline std::string type_name(const py::handle& h) {
  return std::string(py::str(h.get_type().attr("__name__")));
}

// request[key] as T: KeyError naming a missing key, TypeError naming the key and the
// expected type for a value that does not convert.
template <class T>
T get(const py::dict& request, const char* key, const char* expected) {
  if (!request.contains(key))
    throw py::key_error(std::string("request is missing the key '") + key + "'");
  const py::object value = request[key];
  // None would convert to a NaN array or to False; it is never a valid value here.
  if (!value.is_none()) {
    try {
      return py::cast<T>(value);
    } catch (const py::cast_error&) {
    } catch (const py::error_already_set&) {
    }
  }
  // An int that does not fit is out of range, not of the wrong type.
  if constexpr (std::is_integral_v<T> && !std::is_same_v<T, bool>)
    if (py::isinstance<py::int_>(value) && !py::isinstance<py::bool_>(value))
      throw py::value_error(std::string("request['") + key + "'] must lie in [" +
                            std::to_string(std::numeric_limits<T>::min()) + ", " +
                            std::to_string(std::numeric_limits<T>::max()) + "]");
  throw py::type_error(std::string("request['") + key + "'] must be " + expected + ", not " +
                       type_name(value));
}

// A key with a documented default when absent.
template <class T>
T get_or(const py::dict& request, const char* key, T fallback, const char* expected) {
  return request.contains(key) ? get<T>(request, key, expected) : fallback;
}

// An integer array as T without silent wrapping or truncation: integer and bool arrays
// must hold values T can represent, float arrays whole numbers in that range.
template <class T>
py::array_t<T, py::array::c_style | py::array::forcecast> get_int_array(const py::dict& request,
                                                                      const char* key,
                                                                      const char* expected) {
  const py::array any = get<py::array>(request, key, expected);
  const char kind = any.dtype().kind();
  if (kind != 'i' && kind != 'u' && kind != 'b' && kind != 'f')
    throw py::type_error(std::string("request['") + key + "'] must be " + expected + ", not " +
                         std::string(py::str(any.dtype())) + " values");
  using Wide = py::array_t<double, py::array::c_style | py::array::forcecast>;
  if (kind == 'f' || any.dtype().itemsize() >= int(sizeof(T))) {
    const Wide wide = py::cast<Wide>(any);
    for (py::ssize_t i = 0; i < wide.size(); ++i) {
      const double x = wide.data()[i];
      if (!(x >= double(std::numeric_limits<T>::min()) &&
            x <= double(std::numeric_limits<T>::max()) && x == std::floor(x)))
        throw py::value_error(std::string("request['") + key + "'] must hold whole numbers in [" +
                              std::to_string(std::numeric_limits<T>::min()) + ", " +
                              std::to_string(std::numeric_limits<T>::max()) + "]");
    }
  }
  return py::cast<py::array_t<T, py::array::c_style | py::array::forcecast>>(any);
}

using ByteArray = py::array_t<uint8_t, py::array::c_style | py::array::forcecast>;

// Request arrays converted to the view's element type and kept alive for the call.
struct RequestArrays {
  std::vector<py::array> keep;
  template <class T>
  backend::Span<T> take_as(const py::dict& request, const char* key, const char* expected) {
    using Array = py::array_t<T, py::array::c_style | py::array::forcecast>;
    Array a;
    if constexpr (std::is_integral_v<T>)
      a = get_int_array<T>(request, key, expected);
    else
      a = get<Array>(request, key, expected);
    keep.push_back(a);
    return {a.data(), size_t(a.size())};
  }
  backend::FloatSpan take(const py::dict& request, const char* key) {
    return take_as<float>(request, key, "a float array");
  }
  backend::IntSpan take_ints(const py::dict& request, const char* key) {
    return take_as<int32_t>(request, key, "an int array");
  }
  backend::ByteSpan take_bytes(const py::dict& request, const char* key) {
    return take_as<uint8_t>(request, key, "an array of 0/1 flags");
  }
};

// Keys no entry reads are most often misspellings; they get a warning, not silence.
inline void warn_unread_keys(const py::dict& request, std::initializer_list<const char*> known,
                      const char* entry) {
  for (const auto& item : request) {
    const std::string key = py::isinstance<py::str>(item.first)
                                ? item.first.cast<std::string>()
                                : std::string(py::repr(item.first));
    bool read = false;
    for (const char* k : known) read |= key == k;
    if (!read &&
        PyErr_WarnEx(PyExc_UserWarning,
                     ("request key '" + key + "' is not read by " + entry).c_str(), 1) < 0)
      throw py::error_already_set();
  }
}


}  // namespace vesk::module
