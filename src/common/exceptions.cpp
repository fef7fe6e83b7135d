// SPDX-License-Identifier: LGPL-2.1-or-later
#include <tarvek/common/exceptions.hpp>

#include <boost/exception/exception.hpp>
#include <boost/throw_exception.hpp>

namespace tarvek {

namespace {

bool is_name_start(char c) noexcept
{
    return (c >= 'A' && c <= 'Z') || (c >= 'a' && c <= 'z') || c == '_';
}

} // namespace

named_error::named_error(std::string const& name, std::string const& text)
    : runtime_error(text)
{
    if (!is_valid_name(name))
        boost::throw_exception(invalid_argument("Not a valid D-Bus error name: " + name));
    name_ = std::make_shared<std::string const>(name);
}

bool named_error::is_valid_name(std::string const& name) noexcept
{
    if (name.empty() || name.size() > 255)
        return false;
    unsigned elements = 1;
    bool element_start = true;
    for (char const c : name) {
        if (c == '.') {
            // An empty element: a leading, trailing or doubled dot.
            if (element_start)
                return false;
            ++elements;
            element_start = true;
        } else if (element_start) {
            if (!is_name_start(c))
                return false;
            element_start = false;
        } else if (!is_name_start(c) && !(c >= '0' && c <= '9')) {
            return false;
        }
    }
    return !element_start && elements >= 2;
}

boost::exception_ptr capture_current_exception()
{
    try {
        throw;
    } catch (boost::exception const&) {
        // Raised through boost::throw_exception: already cloneable with its class.
        return boost::current_exception();
    }
    // Most derived classes first, so that each is copied as itself.
    catch (unknown_method const& e) {
        return boost::copy_exception(e);
    } catch (unknown_property const& e) {
        return boost::copy_exception(e);
    } catch (unknown_interface const& e) {
        return boost::copy_exception(e);
    } catch (property_readonly const& e) {
        return boost::copy_exception(e);
    } catch (invalid_argument const& e) {
        return boost::copy_exception(e);
    } catch (out_of_range const& e) {
        return boost::copy_exception(e);
    } catch (range_error const& e) {
        return boost::copy_exception(e);
    } catch (length_error const& e) {
        return boost::copy_exception(e);
    } catch (system_error const& e) {
        return boost::copy_exception(e);
    } catch (internal_error const& e) {
        return boost::copy_exception(e);
    } catch (invalid_state_error const& e) {
        return boost::copy_exception(e);
    } catch (serialize_error const& e) {
        return boost::copy_exception(e);
    } catch (deserialize_error const& e) {
        return boost::copy_exception(e);
    } catch (validation_failed const& e) {
        return boost::copy_exception(e);
    } catch (authorization_failure const& e) {
        return boost::copy_exception(e);
    } catch (access_denied const& e) {
        return boost::copy_exception(e);
    } catch (named_error const& e) {
        return boost::copy_exception(e);
    } catch (...) {
        return boost::current_exception();
    }
}

} // namespace tarvek
