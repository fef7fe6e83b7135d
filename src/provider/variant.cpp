// SPDX-License-Identifier: LGPL-2.1-or-later
#include <tarvek/provider/variant.hpp>

#include <tarvek/common/exceptions.hpp>
#include <tarvek/common/str_join.hpp>

#include <boost/throw_exception.hpp>

#include <climits>
#include <string_view>
#include <utility>

namespace tarvek {

namespace detail::variant {

void Recorder::write(bool value)
{
    tokens_.emplace_back(value);
}
void Recorder::write(unsigned char value)
{
    tokens_.emplace_back(value);
}
void Recorder::write(short value)
{
    tokens_.emplace_back(value);
}
void Recorder::write(unsigned short value)
{
    tokens_.emplace_back(value);
}
void Recorder::write(int value)
{
    tokens_.emplace_back(value);
}
void Recorder::write(unsigned int value)
{
    tokens_.emplace_back(value);
}
void Recorder::write(long value)
{
    tokens_.emplace_back(value);
}
void Recorder::write(unsigned long value)
{
    tokens_.emplace_back(value);
}
void Recorder::write(double value)
{
    tokens_.emplace_back(value);
}

void Recorder::write(char const* text, unsigned long size, bool null_terminated)
{
    if (null_terminated && size == 0 && text != nullptr)
        tokens_.emplace_back(std::string(text));
    else
        tokens_.emplace_back(std::string(text, size));
}

void Recorder::write(ObjectPath const& value)
{
    tokens_.emplace_back(value);
}

void Recorder::tuple_begin(unsigned long, char const*)
{
}
void Recorder::tuple_entry_begin()
{
}
void Recorder::tuple_entry_end()
{
}
void Recorder::tuple_end()
{
}

void Recorder::dict_begin(unsigned long, char const*)
{
    counts_.push_back(tokens_.size());
    tokens_.emplace_back(Count{0});
}

void Recorder::dict_entry_begin(char const*)
{
    ++std::get<Count>(tokens_.at(counts_.back())).value;
}

void Recorder::dict_entry_kv_separator()
{
}
void Recorder::dict_entry_end()
{
}

void Recorder::dict_end()
{
    counts_.pop_back();
}

void Recorder::list_begin(unsigned long size, char const* signature)
{
    dict_begin(size, signature);
}

void Recorder::list_entry_begin()
{
    dict_entry_begin(nullptr);
}

void Recorder::list_entry_end()
{
}

void Recorder::list_end()
{
    counts_.pop_back();
}

void Recorder::variant_begin(char const* signature)
{
    tokens_.emplace_back(Nested{signature});
}

void Recorder::variant_end()
{
}

void Recorder::typed_variant_begin(char const* signature)
{
    tokens_.emplace_back(Nested{signature});
}

void Recorder::typed_variant_end()
{
}

void Recorder::write_fd(int)
{
    boost::throw_exception(serialize_error("A Variant cannot hold a file descriptor"));
}

template <class T> T const& Replayer::take()
{
    // The tokens were made for the signature that the reader's type has: anything else is
    // a fault of this file, not of a value.
    if (next_ >= tokens_.size())
        boost::throw_exception(internal_error("Variant: read past the value"));
    auto const* token = std::get_if<T>(&tokens_[next_]);
    if (token == nullptr)
        boost::throw_exception(internal_error("Variant: value does not match its signature"));
    ++next_;
    return *token;
}

int Replayer::enter()
{
    unsigned long const count = take<Count>().value;
    remaining_.push_back(count);
    return count > INT_MAX ? -1 : static_cast<int>(count);
}

bool Replayer::read_bool()
{
    return take<bool>();
}
unsigned char Replayer::read_byte()
{
    return take<unsigned char>();
}
short Replayer::read_int16()
{
    return take<short>();
}
unsigned short Replayer::read_uint16()
{
    return take<unsigned short>();
}
int Replayer::read_int32()
{
    return take<int>();
}
unsigned int Replayer::read_uint32()
{
    return take<unsigned int>();
}
long Replayer::read_int64()
{
    return take<long>();
}
unsigned long Replayer::read_uint64()
{
    return take<unsigned long>();
}
double Replayer::read_double()
{
    return take<double>();
}
std::string Replayer::read_string()
{
    return take<std::string>();
}
ObjectPath Replayer::read_path()
{
    return take<ObjectPath>();
}

void Replayer::tuple_enter()
{
}
void Replayer::tuple_read_separator()
{
}
void Replayer::tuple_exit()
{
}

int Replayer::list_enter()
{
    return enter();
}

void Replayer::list_read_separator()
{
}

bool Replayer::list_try_exit()
{
    if (remaining_.back() == 0) {
        remaining_.pop_back();
        return true;
    }
    --remaining_.back();
    return false;
}

int Replayer::dict_enter()
{
    return enter();
}

bool Replayer::dict_entry_try_enter(bool)
{
    if (remaining_.back() == 0)
        return false;
    --remaining_.back();
    return true;
}

void Replayer::dict_entry_read_kv_separator()
{
}
void Replayer::dict_entry_exit()
{
}

void Replayer::dict_exit()
{
    remaining_.pop_back();
}

void Replayer::variant_enter()
{
    take<Nested>();
}

void Replayer::variant_exit()
{
}

std::string Replayer::typed_variant_enter()
{
    return take<Nested>().signature;
}

void Replayer::typed_variant_exit()
{
}

common::FileDescriptor Replayer::read_fd()
{
    boost::throw_exception(internal_error("A Variant holds no file descriptor"));
}

} // namespace detail::variant

namespace {

using detail::variant::Count;
using detail::variant::Nested;
using detail::variant::Token;

bool is_basic(char code)
{
    return code != 0 && std::string_view("bynqiuxtdso").find(code) != std::string_view::npos;
}

// The length of the complete type at the start of a signature known to be valid.
std::size_t type_length(std::string_view signature)
{
    std::size_t i = 0;
    while (signature[i] == 'a')
        ++i;
    if (signature[i] != '(' && signature[i] != '{')
        return i + 1;
    int level = 0;
    do {
        char const code = signature[i++];
        if (code == '(' || code == '{')
            ++level;
        else if (code == ')' || code == '}')
            --level;
    } while (level > 0);
    return i;
}

std::size_t member_count(std::string_view members)
{
    std::size_t count = 0;
    for (std::size_t i = 0; i < members.size(); i += type_length(members.substr(i)))
        ++count;
    return count;
}

[[noreturn]] void refuse_signature(std::string_view signature)
{
    boost::throw_exception(invalid_argument(
        str::join("Variant signature \"", signature, "\" is not one supported complete type")));
}

// Checks a signature that came from outside: exactly one complete type that the mapping
// covers, within the nesting that the bus allows (32 arrays and 32 structures).
class SignatureCheck {
public:
    explicit SignatureCheck(std::string_view signature)
        : signature_(signature)
    {
        if (signature.find('h') != std::string_view::npos)
            boost::throw_exception(invalid_argument("A Variant cannot hold a file descriptor"));
        if (signature.size() > 255)
            refuse_signature(signature);
        one(0, 0);
        if (position_ != signature_.size())
            refuse_signature(signature_);
    }

private:
    char next()
    {
        if (position_ >= signature_.size())
            refuse_signature(signature_);
        return signature_[position_++];
    }
    char peek() const { return position_ < signature_.size() ? signature_[position_] : 0; }

    void one(unsigned arrays, unsigned structs)
    {
        char const code = next();
        if (is_basic(code) || code == 'v')
            return;
        if (code == 'a') {
            if (++arrays > 32)
                refuse_signature(signature_);
            if (peek() != '{') {
                one(arrays, structs);
                return;
            }
            ++position_;
            if (++structs > 32 || !is_basic(next()))
                refuse_signature(signature_);
            one(arrays, structs);
            if (next() != '}')
                refuse_signature(signature_);
            return;
        }
        if (code == '(') {
            if (++structs > 32 || peek() == ')')
                refuse_signature(signature_);
            while (peek() != ')')
                one(arrays, structs);
            ++position_;
            return;
        }
        refuse_signature(signature_);
    }

    std::string_view signature_;
    std::size_t position_ = 0;
};

// Replays tokens to a sink, led by the signature.
class Writer {
public:
    Writer(glue::ISerializer& sink, std::vector<Token> const& tokens)
        : sink_(sink)
        , tokens_(tokens)
    {
    }

    void value(std::string_view signature)
    {
        switch (signature[0]) {
        case 'b':
            return sink_.write(take<bool>());
        case 'y':
            return sink_.write(take<unsigned char>());
        case 'n':
            return sink_.write(take<short>());
        case 'q':
            return sink_.write(take<unsigned short>());
        case 'i':
            return sink_.write(take<int>());
        case 'u':
            return sink_.write(take<unsigned int>());
        case 'x':
            return sink_.write(take<long>());
        case 't':
            return sink_.write(take<unsigned long>());
        case 'd':
            return sink_.write(take<double>());
        case 's': {
            auto const& text = take<std::string>();
            return sink_.write(text.c_str(), text.size(), true);
        }
        case 'o':
            return sink_.write(take<ObjectPath>());
        case 'v': {
            auto const& inner = take<Nested>().signature;
            sink_.typed_variant_begin(inner.c_str());
            value(inner);
            return sink_.typed_variant_end();
        }
        case '(':
            return tuple(signature.substr(1, type_length(signature) - 2));
        default:
            break;
        }
        // An array: of entries or of elements.
        unsigned long const count = take<Count>().value;
        std::string_view const element = signature.substr(1, type_length(signature) - 1);
        if (element[0] == '{') {
            std::string const braced(element);
            std::string const entry(element.substr(1, element.size() - 2));
            std::string_view const value_signature = std::string_view(entry).substr(1);
            sink_.dict_begin(count, braced.c_str());
            for (unsigned long i = 0; i < count; ++i) {
                sink_.dict_entry_begin(entry.c_str());
                value(entry);
                sink_.dict_entry_kv_separator();
                value(value_signature);
                sink_.dict_entry_end();
            }
            return sink_.dict_end();
        }
        std::string const element_signature(element);
        sink_.list_begin(count, element_signature.c_str());
        for (unsigned long i = 0; i < count; ++i) {
            sink_.list_entry_begin();
            value(element);
            sink_.list_entry_end();
        }
        sink_.list_end();
    }

private:
    void tuple(std::string_view members)
    {
        std::string const text(members);
        sink_.tuple_begin(member_count(members), text.c_str());
        for (std::size_t i = 0; i < members.size(); i += type_length(members.substr(i))) {
            sink_.tuple_entry_begin();
            value(members.substr(i));
            sink_.tuple_entry_end();
        }
        sink_.tuple_end();
    }

    template <class T> T const& take()
    {
        if (next_ >= tokens_.size() || !std::holds_alternative<T>(tokens_[next_]))
            boost::throw_exception(internal_error("Variant: value does not match its signature"));
        return std::get<T>(tokens_[next_++]);
    }

    glue::ISerializer& sink_;
    std::vector<Token> const& tokens_;
    std::size_t next_ = 0;
};

// Reads a value of a checked signature from a source into tokens, counting the depth of
// containers and variants so that a hostile value cannot nest without bound.
class Reader {
public:
    Reader(glue::IDeserializer& source, std::vector<Token>& tokens)
        : source_(source)
        , tokens_(tokens)
    {
    }

    // Enters the typed variant at the source's position and returns its checked signature.
    std::string enter()
    {
        std::string signature = source_.typed_variant_enter();
        SignatureCheck{signature};
        return signature;
    }

    void value(std::string_view signature)
    {
        switch (signature[0]) {
        case 'b':
            return push(source_.read_bool());
        case 'y':
            return push(source_.read_byte());
        case 'n':
            return push(source_.read_int16());
        case 'q':
            return push(source_.read_uint16());
        case 'i':
            return push(source_.read_int32());
        case 'u':
            return push(source_.read_uint32());
        case 'x':
            return push(source_.read_int64());
        case 't':
            return push(source_.read_uint64());
        case 'd':
            return push(source_.read_double());
        case 's':
            return push(source_.read_string());
        case 'o':
            return push(source_.read_path());
        case 'v': {
            Level level(*this);
            std::string inner = enter();
            tokens_.emplace_back(Nested{inner});
            value(inner);
            return source_.typed_variant_exit();
        }
        case '(': {
            Level level(*this);
            std::string_view const members = signature.substr(1, type_length(signature) - 2);
            source_.tuple_enter();
            for (std::size_t i = 0; i < members.size(); i += type_length(members.substr(i))) {
                if (i != 0)
                    source_.tuple_read_separator();
                value(members.substr(i));
            }
            return source_.tuple_exit();
        }
        default:
            break;
        }
        Level level(*this);
        std::string_view const element = signature.substr(1, type_length(signature) - 1);
        std::size_t const count_at = tokens_.size();
        tokens_.emplace_back(Count{0});
        unsigned long count = 0;
        if (element[0] == '{') {
            Level entry_level(*this);
            std::string_view const entry = element.substr(1, element.size() - 2);
            source_.dict_enter();
            for (bool first = true; source_.dict_entry_try_enter(first); first = false) {
                value(entry);
                source_.dict_entry_read_kv_separator();
                value(entry.substr(1));
                source_.dict_entry_exit();
                ++count;
            }
            source_.dict_exit();
        } else {
            source_.list_enter();
            for (bool first = true; !source_.list_try_exit(); first = false) {
                if (!first)
                    source_.list_read_separator();
                value(element);
                ++count;
            }
        }
        std::get<Count>(tokens_[count_at]).value = count;
    }

private:
    struct Level {
        explicit Level(Reader& reader)
            : reader(reader)
        {
            if (++reader.depth_ > Variant::max_depth)
                boost::throw_exception(invalid_argument("Variant nested too deeply"));
        }
        ~Level() { --reader.depth_; }
        Reader& reader;
    };

    template <class T> void push(T&& value) { tokens_.emplace_back(std::forward<T>(value)); }

    glue::IDeserializer& source_;
    std::vector<Token>& tokens_;
    unsigned depth_ = 0;
};

} // namespace

void Variant::write(glue::ISerializer& sink) const
{
    if (empty())
        boost::throw_exception(invalid_state_error("An empty Variant cannot be written"));
    sink.typed_variant_begin(signature_.c_str());
    Writer(sink, tokens_).value(signature_);
    sink.typed_variant_end();
}

Variant Variant::read(glue::IDeserializer& source)
{
    Variant result;
    Reader reader(source, result.tokens_);
    result.signature_ = reader.enter();
    reader.value(result.signature_);
    source.typed_variant_exit();
    return result;
}

void Variant::refuse(char const* wanted) const
{
    boost::throw_exception(invalid_argument(
        str::join("Variant holds ", empty() ? std::string("nothing") : signature_, ", not ", wanted)));
}

namespace provider::typed {

void Codec<Variant>::write(glue::ISerializer& sink, Variant const& value)
{
    value.write(sink);
}

Variant Codec<Variant>::read(glue::IDeserializer& source)
{
    return Variant::read(source);
}

} // namespace provider::typed

} // namespace tarvek
