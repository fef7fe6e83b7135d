// SPDX-License-Identifier: LGPL-2.1-or-later
// BitSet: a fixed-size set of flags, sized at construction; one per interface wrapper,
// one bit per property. No synchronisation of its own: the owner locks around it.
//
// The mask of index i is the 32-bit value 1 << (i % 32), sign-extended to 64 bits, in word
// i / 64. Only the low 32 bits of a word can be told apart: index i and i + 32 share a
// mask, and index 31 (mod 32) covers bits 31..63. Whole-set operations (reset, comparison,
// copying) touch only the first (size + 7) / 8 bytes. Sets of up to 32 bits therefore
// behave as plain bits; larger ones alias, which the dirty-mark walk relies on as it stands.
#pragma once

#include <cstdint>
#include <ostream>

namespace tarvek::common {

class BitSet {
public:
    explicit BitSet(unsigned long size);
    BitSet(BitSet const& other);
    BitSet(BitSet&& other) noexcept;
    BitSet& operator=(BitSet const& other);
    BitSet& operator=(BitSet&& other) noexcept;
    ~BitSet() { delete[] words_; }

    void reset() noexcept;
    bool operator==(BitSet const& other) const noexcept;

    // No bound is checked: `index` must be below size().
    void set(unsigned long index) noexcept { words_[index / 64] |= mask(index); }
    bool test(unsigned long index) const noexcept { return (words_[index / 64] & mask(index)) != 0; }
    void clear(unsigned long index) noexcept { words_[index / 64] &= ~mask(index); }

    unsigned long size() const noexcept { return size_; }

    static constexpr std::uint64_t mask(unsigned long index) noexcept
    {
        auto const low = static_cast<std::int32_t>(std::uint32_t{1} << (index % 32));
        return static_cast<std::uint64_t>(static_cast<std::int64_t>(low));
    }

private:
    unsigned long size_;
    std::uint64_t* words_;
};

// One character per bit, '1' or '0', from index 0 up; the field width applies to each
// character on its own.
std::ostream& operator<<(std::ostream& out, BitSet const& bits);

} // namespace tarvek::common
