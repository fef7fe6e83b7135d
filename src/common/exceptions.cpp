// SPDX-License-Identifier: LGPL-2.1-or-later
#include <tarvek/common/exceptions.hpp>

#include <boost/exception/exception.hpp>

namespace tarvek {

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
    } catch (...) {
        return boost::current_exception();
    }
}

} // namespace tarvek
