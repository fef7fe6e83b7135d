// SPDX-License-Identifier: LGPL-2.1-or-later
#include <tarvek/common/bit_set.hpp>

#include <cstring>

namespace tarvek::common {

namespace {

std::size_t word_count(unsigned long size) { return (size + 63) / 64; }
std::size_t byte_count(unsigned long size) { return (size + 7) / 8; }

} // namespace

BitSet::BitSet(unsigned long size) : size_(size), words_(new std::uint64_t[word_count(size)]())
{
    reset();
}

BitSet::BitSet(BitSet const& other) : size_(other.size_), words_(new std::uint64_t[word_count(size_)]())
{
    std::memcpy(words_, other.words_, byte_count(size_));
}

BitSet::BitSet(BitSet&& other) noexcept : size_(other.size_), words_(other.words_)
{
    other.size_ = 0;
    other.words_ = nullptr;
}

BitSet& BitSet::operator=(BitSet const& other)
{
    if (size_ != other.size_) {
        auto* fresh = new std::uint64_t[word_count(other.size_)]();
        delete[] words_;
        words_ = fresh;
        size_ = other.size_;
    }
    if (words_ != other.words_)
        std::memcpy(words_, other.words_, byte_count(size_));
    return *this;
}

BitSet& BitSet::operator=(BitSet&& other) noexcept
{
    size_ = other.size_;
    delete[] words_;
    words_ = other.words_;
    other.size_ = 0;
    other.words_ = nullptr;
    return *this;
}

void BitSet::reset() noexcept
{
    if (size_ != 0)
        std::memset(words_, 0, byte_count(size_));
}

bool BitSet::operator==(BitSet const& other) const noexcept
{
    return size_ == other.size_ && (size_ == 0 || std::memcmp(words_, other.words_, byte_count(size_)) == 0);
}

std::ostream& operator<<(std::ostream& out, BitSet const& bits)
{
    auto const width = out.width();
    for (unsigned long i = 0; i < bits.size(); ++i) {
        out.width(width);
        out << (bits.test(i) ? '1' : '0');
    }
    out.width(0);
    return out;
}

} // namespace tarvek::common
