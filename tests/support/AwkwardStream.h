#pragma once
#include <gtest/gtest.h>

#include <locale>
#include <sstream>
#include <string>

namespace Veltro {

struct GroupedDigits : std::numpunct<char> {
  char do_thousands_sep() const override { return '.'; }
  char do_decimal_point() const override { return ','; }
  std::string do_grouping() const override { return "\1"; }
};

/// A stream in a state that spoils every number printed carelessly, under a global locale that
/// groups digits; tells whether the state is still the same.
struct AwkwardStream : std::ostringstream {
  AwkwardStream() {
    imbue(std::locale());
    setf(std::ios::hex, std::ios::basefield);
    setf(std::ios::right, std::ios::adjustfield);
    setf(std::ios::showbase | std::ios::uppercase | std::ios::showpos | std::ios::scientific);
    fill('*');
    precision(2);
    width(kWidth);
    flagsBefore_ = flags();
  }
  ~AwkwardStream() override { std::locale::global(globalBefore_); }

  void expectStateKept(int expectedWidth) const {
    EXPECT_EQ(flagsBefore_, flags());
    EXPECT_EQ('*', fill());
    EXPECT_EQ(2, precision());
    EXPECT_EQ(expectedWidth, width());
    EXPECT_TRUE(getloc() == std::locale());
  }

  static constexpr int kWidth = 300;

 private:
  struct SetGlobal {
    std::locale before = std::locale::global(std::locale(std::locale(), new GroupedDigits));
  };
  std::locale const globalBefore_ = SetGlobal().before;
  std::ios::fmtflags flagsBefore_;
};

}  // namespace Veltro
