// Banks of filters: the packed arrays, and the hash that knows a bank again.
#include <gtest/gtest.h>

#include <limits>
#include <vector>

#include "cuda_like/filter_bank.h"
#include "cuda_like/hash.h"

namespace kevra {
namespace {

TEST(FilterBank, IsPackedByRowAndByBin) {
  const double weights[] = {
      0, 1, 0,  2, 0,  // a zero between
      0, 0, 0,  0, 0,  //
      3, 4, 0,  0, 5,  // three rows meet in bin 1
      0, 6, -7, 0, 0,
  };
  const PackedFilterBank packed = pack_filter_bank(filter_bank(weights, 4, 5));
  EXPECT_EQ(packed.lo, (std::vector<int32_t>{1, 0, 0, 1}));
  EXPECT_EQ(packed.off, (std::vector<int32_t>{0, 3, 3, 8, 10}));
  EXPECT_EQ(packed.w, (std::vector<double>{1, 0, 2, 3, 4, 0, 0, 5, 6, -7}));
  EXPECT_EQ(packed.b0, (std::vector<int32_t>{2, 0, 3, 0, 2}));
  EXPECT_EQ(packed.b1, (std::vector<int32_t>{-1, 3, -1, -1, -1})) << "the last of the others";
  EXPECT_EQ(packed.w0, (std::vector<double>{3, 1, -7, 2, 5}));
  EXPECT_EQ(packed.w1, (std::vector<double>{0, 6, 0, 0, 0}));
}

TEST(FilterBank, HasTablesForItsContentAndPrecision) {
  std::vector<double> weights(3 * 9, 0.5);
  const FilterBank bank = filter_bank(weights.data(), 3, 9);
  const FilterBankTable table = filter_bank_table(bank, true);
  EXPECT_EQ(filter_bank_table(filter_bank(std::vector<double>(weights).data(), 3, 9), true).w,
            table.w);
  EXPECT_NE(filter_bank_table(bank, false).w, table.w);
  EXPECT_NE(filter_bank_table(filter_bank(weights.data(), 9, 3), true).w, table.w);
  weights[26] = 1;
  EXPECT_NE(filter_bank_table(filter_bank(weights.data(), 3, 9), true).w, table.w);

  std::vector<double> uploaded(27);
  KEVRA_CHECK(memcpyDtoH(uploaded.data(), table.w, 27 * sizeof(double)));
  EXPECT_EQ(uploaded, std::vector<double>(27, 0.5));
  const std::vector<double> empty(27);
  EXPECT_NE(filter_bank_table(filter_bank(empty.data(), 3, 9), true).w, nullptr);
}

// The memo may save the work, never change the answer.
TEST(MatrixHashMemo, AnswersAsTheHash) {
  std::vector<double> values(3000);
  MatrixHashMemo memo;
  const auto same = [&](size_t rows, size_t cols) {
    for (int again = 0; again < 2; ++again) {
      EXPECT_EQ(memo.hash(values.data(), rows, cols), matrix_hash(values.data(), rows, cols));
    }
  };
  same(3, 1000);
  same(1000, 3);
  same(2, 1000);
  same(1, 3);
  same(3, 1000);
  for (size_t place : {0, 511, 512, 515, 2995, 2996}) {
    values[place] = -0.0;  // equal to what stood there, in other bits
    same(3, 1000);
    values[place] = std::numeric_limits<double>::quiet_NaN();
    same(3, 1000);
  }
}

}  // namespace
}  // namespace kevra
