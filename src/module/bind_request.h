#pragma once
// Reading process requests (dicts of arrays and scalars) at the binding edge: typed
// lookups with errors that name the key, arrays kept alive for the call, and a warning
// for keys that no entry reads.

#include <algorithm>
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

// A count that a request may give beside its arrays (n_elements, n_bands, ...): given
// under its key, or learnt from the first array that has that axis. Arrays given with
// the axis must agree with it; arrays given flat leave their length to the validator.
struct RequestCount {
  const char* key;
  bool given = false;
  int64_t value = -1;  // -1: neither given nor learnt yet
  std::string from;    // the array it was learnt from
  RequestCount(const py::dict& request, const char* k) : key(k) {
    given = request.contains(k);
    if (given) value = get<int32_t>(request, k, "an int");
  }
  bool known() const { return given || !from.empty(); }
  // Counts beyond int32 saturate; the validators then refuse them as mismatches.
  int32_t get32() const { return int32_t(std::min<int64_t>(value, 0x7fffffff)); }
  // Checks axis `axis` of a 2-D `array` against a given count; a flat array, or no
  // given count, is left to the validator.
  void check_given(const py::array& a, int axis, const char* array) {
    if (given && a.ndim() == 2) agree(a, axis, array);
  }
  // Takes axis `axis` of `array` as the count, or checks it against the count.
  void agree(const py::array& a, int axis, const char* array) {
    const int64_t extent = int64_t(a.shape(axis));
    if (!known()) {
      value = extent;
      from = array;
      return;
    }
    if (extent == value) return;
    std::string shape = "(";
    for (py::ssize_t d = 0; d < a.ndim(); ++d)
      shape += (d ? ", " : "") + std::to_string(a.shape(d));
    shape += a.ndim() == 1 ? ",)" : ")";
    throw py::value_error(
        (given ? "request['" + std::string(key) + "'] = " + std::to_string(value)
               : std::string(key) + " = " + std::to_string(value) + " from " + from) +
        " does not match " + array + " of shape " + shape);
  }
};

// A float array of `rows` x `cols` values, row-major: 2-D with those extents, or flat
// when both counts are known (given, or learnt from an earlier array). Anything else
// fails with `Error(shape_rule)`.
template <class Error>
FloatArray rows_by_cols(const py::dict& request, const char* key, RequestCount& rows,
                        RequestCount& cols, const std::string& shape_rule) {
  FloatArray a = get<FloatArray>(request, key, "a float array");
  if (a.ndim() == 2) {
    rows.agree(a, 0, key);
    cols.agree(a, 1, key);
  } else if (a.ndim() != 1 || !rows.known() || !cols.known()) {
    throw Error(shape_rule);
  }
  return a;
}

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
