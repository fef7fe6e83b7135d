// SPDX-License-Identifier: LGPL-2.1-or-later
#include <tarvek/provider/interface.hpp>

#include <tarvek/provider/interface_state.hpp>

#include <tarvek/common/str_join.hpp>

#include <limits>

namespace tarvek::provider {

namespace {

// sd-bus takes argument names by the rules of member names, and refuses a whole table
// otherwise: checked here, where the name is written.
bool is_argument_name(std::string const& name) noexcept
{
    if (name.empty() || name.size() > 255)
        return false;
    auto const letter = [](char c) { return (c >= 'A' && c <= 'Z') || (c >= 'a' && c <= 'z') || c == '_'; };
    if (!letter(name.front()))
        return false;
    for (char const c : name) {
        if (!letter(c) && !(c >= '0' && c <= '9'))
            return false;
    }
    return true;
}

} // namespace

std::string typed::join_argument_names(std::string const& member, std::vector<std::string> const& in,
                                       std::size_t in_count, std::vector<std::string> const& out,
                                       std::size_t out_count)
{
    if (in.empty() && out.empty())
        return {};
    // All or none: sd-bus reads the names of the results right after those of the
    // parameters, so a gap would shift every later name.
    if (in.size() != in_count || out.size() != out_count) {
        boost::throw_exception(invalid_argument(str::join("Argument names of ", member, ": ", in.size(), " and ",
                                                          out.size(), " given for ", in_count, " and ", out_count,
                                                          " arguments")));
    }
    std::string joined;
    for (auto const* names : {&in, &out}) {
        for (auto const& name : *names) {
            if (!is_argument_name(name))
                boost::throw_exception(invalid_argument(str::join("Not a valid argument name: ", name)));
            joined += name;
            joined += '\0';
        }
    }
    return joined;
}

std::shared_ptr<InterfaceState> Interface::make_state(Interface& self, std::string name)
{
    auto table = std::make_shared<typed::InterfaceTable>(std::move(name));
    ConstString const interface_name(table->name.c_str(), table->name.size());
    auto& methods = table->methods;
    auto& signals = table->signals;
    // The state owns the table through its committed property set, which keeps methods,
    // signals and names alive as long as any wrapper holds the state.
    return std::make_shared<InterfaceState>(self, interface_name, std::move(table), methods, signals);
}

Interface::Interface(std::string name)
    : InterfaceImplementationBase(make_state(*this, std::move(name)))
    , table_(static_cast<typed::InterfaceTable&>(state_->properties()))
{}

Interface::~Interface()
{
    table_.alive = false;
}

std::unique_ptr<IPropertyExCollection> Interface::get_properties() const
{
    auto copy = std::make_unique<typed::PropertyList>();
    copy->properties.reserve(table_.properties.size());
    for (auto const& property : table_.properties)
        copy->properties.push_back(property->clone());
    return copy;
}

void Interface::set_properties(IPropertyExCollection& context)
{
    state_->set_properties(context);
}

bool Interface::validate(IPropertyExCollection& context)
{
    // Enforced ranges come first and refuse the batch the way validate does. Only what the
    // batch changes is judged: a live value that stands already is not this write's doing.
    auto const& list = static_cast<typed::PropertyList&>(context);
    for (auto const& property : list.properties)
        if (property->is_dirty() && !property->within_enforced_ranges())
            return false;
    return validate(Values(context));
}

void Interface::on_changed(IPropertyExCollection& context, IChangedProperties& changed)
{
    on_changed(Values(context), Changed(changed));
}

bool Interface::validate(Values const&) const
{
    return true;
}

void Interface::on_changed(Values const&, Changed const&) {}

void Interface::check_can_declare() const
{
    if (state_->get_parent_object() != nullptr)
        boost::throw_exception(
            invalid_state_error("Members of an interface are declared before it is added to an object"));
}

unsigned short Interface::next_index() const
{
    if (table_.properties.size() > std::numeric_limits<unsigned short>::max())
        boost::throw_exception(invalid_argument("An interface has at most 65536 properties"));
    return static_cast<unsigned short>(table_.properties.size());
}

} // namespace tarvek::provider
