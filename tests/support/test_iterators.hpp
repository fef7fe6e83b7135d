// SPDX-License-Identifier: LGPL-2.1-or-later
// The four iterators of the request operations, over vectors that the test fills, as a
// protocol server's argument cursors would be. Each enforces the consumer's loop: value()
// twice without advance() between is reported as a failure.
#pragma once

#include "support/test_values.hpp"

#include <tarvek/glue/collection.hpp>
#include <tarvek/glue/members.hpp>

#include <stdexcept>
#include <utility>
#include <vector>

namespace tarvek::test {

template <class T> class VectorIterator : public glue::IIterator<T> {
public:
    void advance() override
    {
        ++position_;
        taken_ = false;
    }
    bool at_end() const override { return position_ >= count(); }
    T value() override
    {
        if (taken_)
            throw std::logic_error("value() twice without advance()");
        taken_ = true;
        return element(position_);
    }

protected:
    virtual std::size_t count() const = 0;
    virtual T element(std::size_t index) = 0;

private:
    std::size_t position_ = 0;
    bool taken_ = false;
};

// Properties with their new values.
class WriteIterator : public VectorIterator<std::pair<glue::IProperty&, glue::IDeserializer&>> {
public:
    void add(glue::IProperty& property, Value value)
    {
        entries_.push_back({&property, ValueSource(Values{std::move(value)})});
    }

protected:
    std::size_t count() const override { return entries_.size(); }
    std::pair<glue::IProperty&, glue::IDeserializer&> element(std::size_t index) override
    {
        return {*entries_[index].first, entries_[index].second};
    }

private:
    std::vector<std::pair<glue::IProperty*, ValueSource>> entries_;
};

// Properties to reset.
class ResetIterator : public VectorIterator<glue::IProperty&> {
public:
    void add(glue::IProperty& property) { entries_.push_back(&property); }

protected:
    std::size_t count() const override { return entries_.size(); }
    glue::IProperty& element(std::size_t index) override { return *entries_[index]; }

private:
    std::vector<glue::IProperty*> entries_;
};

// Properties to read, each into a sink of its own.
class ReadIterator : public VectorIterator<std::pair<glue::IProperty const&, glue::ISerializer&>> {
public:
    void add(glue::IProperty const& property) { entries_.push_back(&property); }
    // Sized when reading starts, so that the sinks don't move while the reads go on.
    void prepare() { sinks.resize(entries_.size()); }

    std::vector<ValueSink> sinks;

protected:
    std::size_t count() const override { return entries_.size(); }
    std::pair<glue::IProperty const&, glue::ISerializer&> element(std::size_t index) override
    {
        return {*entries_[index], sinks.at(index)};
    }

private:
    std::vector<glue::IProperty const*> entries_;
};

// One source per argument.
class ArgumentIterator : public VectorIterator<glue::IDeserializer&> {
public:
    explicit ArgumentIterator(Values const& arguments)
    {
        for (auto const& argument : arguments)
            sources_.emplace_back(Values{argument});
    }

protected:
    std::size_t count() const override { return sources_.size(); }
    glue::IDeserializer& element(std::size_t index) override { return sources_[index]; }

private:
    std::vector<ValueSource> sources_;
};

} // namespace tarvek::test
