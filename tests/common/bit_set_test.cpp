// SPDX-License-Identifier: LGPL-2.1-or-later
#include <tarvek/common/bit_set.hpp>

#include <gtest/gtest.h>

#include <iomanip>
#include <sstream>

using tarvek::common::BitSet;

namespace {

std::string print(BitSet const& bits)
{
    std::ostringstream out;
    out << bits;
    return out.str();
}

} // namespace

TEST(BitSet, EmptySetPrintsNothingAndEqualsAnotherEmptySet)
{
    BitSet const a(0);
    EXPECT_EQ(print(a), "");
    EXPECT_EQ(a, BitSet(0));
}

TEST(BitSet, PrintsOneCharacterPerBitFromIndexZero)
{
    BitSet bits(5);
    bits.set(2);
    EXPECT_EQ(print(bits), "00100");
}

TEST(BitSet, FieldWidthAppliesToEachCharacter)
{
    BitSet bits(2);
    bits.set(0);
    std::ostringstream out;
    out << std::setw(2) << bits << 'x';
    EXPECT_EQ(out.str(), " 1 0x");
}

TEST(BitSet, IndexThirtyOneMaskCoversTheUpperHalfOfTheWord)
{
    BitSet bits(64);
    bits.set(31);
    std::string const expected = std::string(31, '0') + "1" + std::string(31, '0') + "1";
    EXPECT_EQ(print(bits), expected);
}

TEST(BitSet, IndicesThirtyTwoApartShareAMask)
{
    BitSet bits(64);
    bits.set(35);
    EXPECT_TRUE(bits.test(3));
    bits.clear(3);
    EXPECT_FALSE(bits.test(35));
}

TEST(BitSet, ResetZeroesOnlyTheBytesOfTheSize)
{
    BitSet bits(32);
    bits.set(31);
    bits.reset();
    EXPECT_TRUE(bits.test(31));
    BitSet const copy(bits);
    EXPECT_FALSE(copy.test(31));
}

TEST(BitSet, ClearOfIndexThirtyOneClearsTheUpperHalf)
{
    BitSet bits(64);
    bits.set(31);
    bits.clear(31);
    EXPECT_FALSE(bits.test(63));
}

TEST(BitSet, MoveLeavesAnEmptySource)
{
    BitSet a(8);
    a.set(1);
    BitSet const b(std::move(a));
    EXPECT_EQ(a.size(), 0U); // NOLINT(bugprone-use-after-move): the moved-from state is defined
    EXPECT_EQ(print(a), "");
    EXPECT_EQ(print(b), "01000000");
}

TEST(BitSet, MoveAssignmentTakesTheWords)
{
    BitSet a(3);
    a.set(0);
    BitSet b(40);
    b = std::move(a);
    EXPECT_EQ(b.size(), 3U);
    EXPECT_EQ(print(b), "100");
    EXPECT_EQ(a.size(), 0U); // NOLINT(bugprone-use-after-move)
}

TEST(BitSet, SetsOfDifferentSizesAreNeverEqual)
{
    EXPECT_FALSE(BitSet(3) == BitSet(4));
}

TEST(BitSet, CopyAssignmentResizesAndCopies)
{
    BitSet source(10);
    source.set(9);
    BitSet target(3);
    target = source;
    EXPECT_EQ(target, source);
    BitSet same_size(10);
    same_size.set(0);
    same_size = source;
    EXPECT_EQ(print(same_size), "0000000001");
}

TEST(BitSet, MaskIsSignExtended)
{
    EXPECT_EQ(BitSet::mask(0), 1U);
    EXPECT_EQ(BitSet::mask(31), 0xffffffff80000000ULL);
    EXPECT_EQ(BitSet::mask(33), 2U);
}
