// SPDX-License-Identifier: LGPL-2.1-or-later
// The library's exception family. Every failure that leaves the library is one of these
// classes, a standard exception or a Boost future/thread exception. They are raised with
// boost::throw_exception, so that a captured exception keeps its concrete class when it
// crosses a boost::future to another thread. All classes are plain values and may be used
// from any thread.
#pragma once

#include <boost/exception_ptr.hpp>

#include <memory>
#include <stdexcept>
#include <string>
#include <system_error>

namespace tarvek {

// Marker shared by the whole family: `catch (tarvek::exception&)` catches any of them.
// It is deliberately not polymorphic; what() comes from the standard part of the object.
// The pointer refers to that part of the object built at the throw site; a thrown copy
// keeps the original pointer, so nothing may follow it after the throw.
class exception {
protected:
    exception() noexcept = default;
    void set_standard_part(std::exception const* part) noexcept { standard_part_ = part; }

private:
    std::exception const* standard_part_ = nullptr;
};

namespace detail {

// Joins the marker to one standard exception; E keeps its own what() and destructor.
template <class E>
class WrapException : public tarvek::exception, public E {
public:
    template <class... Args>
    explicit WrapException(Args&&... args) : E(std::forward<Args>(args)...)
    {
        // Set in the body: the E part must be constructed before it is pointed at.
        set_standard_part(static_cast<E const*>(this));
    }
};

// Common base of every class that wraps std::runtime_error; never raised as such.
class runtime_error : public WrapException<std::runtime_error> {
public:
    using WrapException<std::runtime_error>::WrapException;
};

} // namespace detail

class internal_error : public detail::runtime_error {
public:
    using runtime_error::runtime_error;
};

class invalid_state_error : public detail::runtime_error {
public:
    using runtime_error::runtime_error;
};

class serialize_error : public detail::runtime_error {
public:
    using runtime_error::runtime_error;
};

class deserialize_error : public detail::runtime_error {
public:
    using runtime_error::runtime_error;
};

class validation_failed : public detail::runtime_error {
public:
    using runtime_error::runtime_error;
};

class authorization_failure : public detail::runtime_error {
public:
    using runtime_error::runtime_error;
};

// Raised by application code only; the library catches it and answers "access denied".
class access_denied : public detail::runtime_error {
public:
    using runtime_error::runtime_error;
};

class invalid_argument : public detail::WrapException<std::invalid_argument> {
public:
    using WrapException::WrapException;
};

class property_readonly : public invalid_argument {
public:
    using invalid_argument::invalid_argument;
};

class out_of_range : public detail::WrapException<std::out_of_range> {
public:
    using WrapException::WrapException;
};

class unknown_interface : public out_of_range {
public:
    using out_of_range::out_of_range;
};

class unknown_method : public out_of_range {
public:
    using out_of_range::out_of_range;
};

class unknown_property : public out_of_range {
public:
    using out_of_range::out_of_range;
};

class range_error : public detail::WrapException<std::range_error> {
public:
    using WrapException::WrapException;
};

class length_error : public detail::WrapException<std::length_error> {
public:
    using WrapException::WrapException;
};

// A failed system or sd-bus call. Always on std::system_category() with a positive error
// number (for sd-bus, the negated result); what() is "text: system text" when a text is
// given, and the system text alone otherwise.
class system_error : public detail::WrapException<std::system_error> {
public:
    explicit system_error(int error_number)
        : WrapException(std::error_code(error_number, std::system_category()))
    {}
    system_error(int error_number, char const* what)
        : WrapException(std::error_code(error_number, std::system_category()), what)
    {}
    system_error(int error_number, std::string const& what)
        : WrapException(std::error_code(error_number, std::system_category()), what)
    {}
};

// An application's own bus error: raised from a method handler, passed to
// Responder::fail, or raised from validate during a bus write, it reaches the client as
// the error `name` with `text` as its message, exactly as given. The name follows the
// rules of D-Bus error names, which are those of interface names: at most 255 characters,
// two or more elements separated by dots, each of ASCII letters, digits and underscores
// and not starting with a digit ("org.sample.Lamp.Error.Broken"). The constructor checks it
// and raises tarvek::invalid_argument "Not a valid D-Bus error name: " plus the name, so
// that a bad name shows where it is written and not as a lost reply. Copies share the
// name, so copying never fails.
class named_error : public detail::runtime_error {
public:
    named_error(std::string const& name, std::string const& text);
    char const* name() const noexcept { return name_->c_str(); }

    // Whether `name` may serve as a D-Bus error name.
    static bool is_valid_name(std::string const& name) noexcept;

private:
    std::shared_ptr<std::string const> name_;
};

// Captures the exception being handled (call it in a catch block) for a boost::promise or
// boost::exception_ptr, keeping the concrete class of the library's exceptions also when
// application code raised one with a plain `throw` rather than boost::throw_exception.
// Other exceptions are captured as boost::current_exception() does.
boost::exception_ptr capture_current_exception();

} // namespace tarvek
