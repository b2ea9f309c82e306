// Kernel texts against the files in tests/golden.
#pragma once

#include <gtest/gtest.h>

#include <fstream>
#include <sstream>
#include <string>

namespace kevra_test {

// Compares line by line and shows the first that differs: whole kernels drown a report.
inline void expect_golden(const std::string& got, const std::string& name) {
  std::ifstream file(std::string(KEVRA_GOLDEN_FOLDER) + "/" + name);
  ASSERT_TRUE(file) << "missing " << name;
  std::istringstream text(got);
  std::string line;
  std::string golden;
  for (int number = 1;; ++number) {
    const bool more = static_cast<bool>(std::getline(text, line));
    const bool more_golden = static_cast<bool>(std::getline(file, golden));
    ASSERT_EQ(more, more_golden) << name << " differs in length from line " << number << " on";
    if (!more) return;
    ASSERT_EQ(line, golden) << name << ":" << number;
  }
}

}  // namespace kevra_test
