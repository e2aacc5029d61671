#pragma once
// Small helpers shared by the C++ tests.

#include <gtest/gtest.h>

#include <functional>
#include <string>

#include "core/types.h"

// Runs fn, expects an exception of type E whose what() equals text exactly.
template <class E>
void expect_throw_text(const std::function<void()>& fn, const std::string& text) {
  try {
    fn();
    ADD_FAILURE() << "expected an exception with text: " << text;
  } catch (const E& e) {
    EXPECT_EQ(std::string(e.what()), text);
  } catch (const std::exception& e) {
    ADD_FAILURE() << "wrong exception type, text: " << e.what();
  }
}

inline void expect_near3(float3 a, float3 b, float tol, const std::string& what) {
  EXPECT_NEAR(a.x, b.x, tol) << what;
  EXPECT_NEAR(a.y, b.y, tol) << what;
  EXPECT_NEAR(a.z, b.z, tol) << what;
}
