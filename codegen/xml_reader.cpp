// SPDX-License-Identifier: LGPL-2.1-or-later
// The expat front end: a stack of open elements, each knowing which model entry it fills.
#include "xml_reader.hpp"

#include <expat.h>

#include <cerrno>
#include <fstream>
#include <memory>
#include <sstream>
#include <system_error>
#include <utility>
#include <vector>

namespace tarvek::codegen {
namespace {

bool is_blank(std::string const& text)
{
    return text.find_first_not_of(" \t\r\n") == std::string::npos;
}

std::string trim(std::string const& text)
{
    auto const first = text.find_first_not_of(" \t\r\n");
    if (first == std::string::npos)
        return {};
    auto const last = text.find_last_not_of(" \t\r\n");
    return text.substr(first, last - first + 1);
}

// Text of <doc:...> elements: paragraphs (split where an element began or ended, or at a
// blank line) with their white space folded into single blanks.
std::string fold_paragraphs(std::string const& raw)
{
    std::vector<std::string> paragraphs;
    std::string current;
    std::istringstream lines(raw);
    auto flush = [&] {
        if (!current.empty())
            paragraphs.push_back(current);
        current.clear();
    };
    for (std::string line; std::getline(lines, line);) {
        if (line == "\f") { // element boundary
            flush();
            continue;
        }
        std::string const t = trim(line);
        if (t.empty()) {
            flush();
            continue;
        }
        std::istringstream words(t);
        for (std::string word; words >> word;)
            current += (current.empty() ? "" : " ") + word;
    }
    flush();
    std::string out;
    for (auto const& p : paragraphs)
        out += (out.empty() ? "" : "\n\n") + p;
    return out;
}

// A comment keeps its lines (they often list arguments one per line), without the
// indentation they had in the XML. A rule of stars or dashes is decoration, not text.
std::string comment_text(std::string const& raw)
{
    std::vector<std::string> kept;
    std::istringstream lines(raw);
    for (std::string line; std::getline(lines, line);) {
        std::string const t = trim(line);
        if (t.empty() && (kept.empty() || kept.back().empty()))
            continue;
        kept.push_back(t);
    }
    while (!kept.empty() && kept.back().empty())
        kept.pop_back();
    std::string out;
    for (auto const& line : kept)
        out += (out.empty() ? "" : "\n") + line;
    if (out.find_first_not_of("*-=#/ \n") == std::string::npos)
        return {};
    return out;
}

void append_doc(std::string& doc, std::string const& text)
{
    if (text.empty())
        return;
    doc += (doc.empty() ? "" : "\n\n") + text;
}

// Elements of documentation that mark up words within a sentence; every other one (a
// paragraph, a summary, a list item) starts a paragraph of its own.
bool is_inline_markup(std::string const& tag)
{
    auto const local = tag.substr(tag.find(':') + 1);
    for (char const* name : {"tt", "ref", "code", "ulink", "emphasis", "literal", "a", "b", "i", "link"})
        if (local == name)
            return true;
    return false;
}

enum class Kind { root, node, interface, method, signal, property, argument, annotation, doc, foreign };

struct Open {
    Kind kind;
    std::string tag;
    // The entry this element fills; which one depends on kind.
    Interface* interface = nullptr;
    Method* method = nullptr;
    Signal* signal = nullptr;
    Property* property = nullptr;
    Argument* argument = nullptr;
};

class Reader {
public:
    Reader(std::string file)
        : file_(std::move(file))
    {
        document_.file = file_;
    }

    Document run(std::string const& text)
    {
        std::unique_ptr<XML_ParserStruct, decltype(&XML_ParserFree)> parser(
            XML_ParserCreate(nullptr), &XML_ParserFree);
        if (!parser)
            throw InputError(file_, 0, "could not create the XML parser");
        parser_ = parser.get();
        XML_SetUserData(parser_, this);
        XML_SetElementHandler(parser_, &Reader::on_start, &Reader::on_end);
        XML_SetCharacterDataHandler(parser_, &Reader::on_text);
        XML_SetCommentHandler(parser_, &Reader::on_comment);
        stack_.push_back({Kind::root, ""});
        auto const status = XML_Parse(parser_, text.data(), static_cast<int>(text.size()), XML_TRUE);
        if (error_)
            std::rethrow_exception(error_);
        if (status != XML_STATUS_OK)
            throw InputError(file_, XML_GetCurrentLineNumber(parser_),
                std::string("malformed XML: ") + XML_ErrorString(XML_GetErrorCode(parser_)));
        if (!seen_root_)
            throw InputError(file_, 1, "no <node> or <interface> element");
        return std::move(document_);
    }

private:
    static void on_start(void* self, XML_Char const* name, XML_Char const** attributes)
    {
        static_cast<Reader*>(self)->guarded([&](Reader& r) { r.start(name, attributes); });
    }
    static void on_end(void* self, XML_Char const* name)
    {
        static_cast<Reader*>(self)->guarded([&](Reader& r) { r.end(name); });
    }
    static void on_text(void* self, XML_Char const* text, int length)
    {
        static_cast<Reader*>(self)->guarded(
            [&](Reader& r) { r.text(std::string(text, static_cast<std::size_t>(length))); });
    }
    static void on_comment(void* self, XML_Char const* text)
    {
        static_cast<Reader*>(self)->guarded([&](Reader& r) { r.comment(text); });
    }

    // Exceptions must not cross expat's C frames: the first one stops the parser and is
    // raised again once XML_Parse has returned.
    template <class F> void guarded(F&& f)
    {
        if (error_)
            return;
        try {
            f(*this);
        } catch (...) {
            error_ = std::current_exception();
            XML_StopParser(parser_, XML_FALSE);
        }
    }

    Location here() const { return {file_, XML_GetCurrentLineNumber(parser_)}; }

    struct Attributes {
        std::vector<std::pair<std::string, std::string>> values;
        std::vector<bool> used;

        std::string const* find(char const* name)
        {
            for (std::size_t i = 0; i < values.size(); ++i)
                if (values[i].first == name) {
                    used[i] = true;
                    return &values[i].second;
                }
            return nullptr;
        }
    };

    std::string required(Attributes& attributes, char const* name, std::string const& tag)
    {
        auto const* value = attributes.find(name);
        if (!value)
            here().fail("<" + tag + "> has no \"" + name + "\" attribute");
        return *value;
    }

    void check_all_used(Attributes& attributes, std::string const& tag)
    {
        for (std::size_t i = 0; i < attributes.values.size(); ++i) {
            auto const& name = attributes.values[i].first;
            // xmlns and prefixed attributes belong to XML itself or to other tools.
            if (attributes.used[i] || name.find(':') != std::string::npos || name == "xmlns")
                continue;
            std::string text = "unknown attribute \"";
            text.append(name).append("\" on <").append(tag).append(">");
            here().fail(text);
        }
    }

    void start(char const* raw_name, XML_Char const** raw_attributes)
    {
        std::string const tag = raw_name;
        Open& parent = stack_.back();
        Attributes attributes;
        for (auto** a = raw_attributes; *a; a += 2) {
            attributes.values.emplace_back(a[0], a[1]);
            attributes.used.push_back(false);
        }
        std::string comment = std::exchange(pending_comment_, {});

        if (parent.kind == Kind::doc || parent.kind == Kind::foreign) {
            if (parent.kind == Kind::doc && !is_inline_markup(tag))
                doc_text_ += "\n\f\n";
            stack_.push_back({parent.kind, tag});
            return;
        }
        if (tag.find(':') != std::string::npos) {
            // <doc:doc> and its kin carry documentation; other prefixes are other tools'.
            bool const doc = tag.substr(tag.find(':') + 1) == "doc" && parent.kind != Kind::root
                && parent.kind != Kind::annotation;
            stack_.push_back({doc ? Kind::doc : Kind::foreign, tag});
            doc_text_.clear();
            return;
        }

        Open open{Kind::foreign, tag};
        auto refuse = [&] {
            here().fail("unexpected <" + tag + ">"
                + (parent.tag.empty() ? std::string(" at the top") : " inside <" + parent.tag + ">"));
        };
        if (tag == "node") {
            if (parent.kind != Kind::root && parent.kind != Kind::node)
                refuse();
            attributes.find("name");
            open.kind = Kind::node;
            seen_root_ = true;
        } else if (tag == "interface") {
            if (parent.kind != Kind::root && parent.kind != Kind::node)
                refuse();
            seen_root_ = true;
            auto& entry = document_.interfaces.emplace_back();
            entry.name = required(attributes, "name", tag);
            entry.where = here();
            entry.doc = comment_text(comment);
            open.kind = Kind::interface;
            open.interface = &entry;
        } else if (tag == "method" || tag == "signal" || tag == "property") {
            if (parent.kind != Kind::interface)
                refuse();
            auto& owner = *parent.interface;
            if (tag == "method") {
                auto& entry = owner.methods.emplace_back();
                entry.name = required(attributes, "name", tag);
                entry.where = here();
                entry.doc = comment_text(comment);
                open.kind = Kind::method;
                open.method = &entry;
            } else if (tag == "signal") {
                auto& entry = owner.signals.emplace_back();
                entry.name = required(attributes, "name", tag);
                entry.where = here();
                entry.doc = comment_text(comment);
                open.kind = Kind::signal;
                open.signal = &entry;
            } else {
                auto& entry = owner.properties.emplace_back();
                entry.name = required(attributes, "name", tag);
                entry.type = required(attributes, "type", tag);
                entry.where = here();
                entry.doc = comment_text(comment);
                auto const access = required(attributes, "access", tag);
                if (access == "read")
                    entry.access = Access::read;
                else if (access == "write")
                    entry.access = Access::write;
                else if (access == "readwrite")
                    entry.access = Access::read_write;
                else
                    here().fail("unknown access \"" + access + "\" of property " + entry.name
                        + " (read, write or readwrite)");
                open.kind = Kind::property;
                open.property = &entry;
            }
        } else if (tag == "arg") {
            if (parent.kind != Kind::method && parent.kind != Kind::signal)
                refuse();
            auto& list = parent.kind == Kind::method ? parent.method->arguments : parent.signal->arguments;
            auto& entry = list.emplace_back();
            if (auto const* name = attributes.find("name"))
                entry.name = *name;
            entry.type = required(attributes, "type", tag);
            entry.where = here();
            entry.doc = comment_text(comment);
            entry.direction = parent.kind == Kind::method ? Direction::in : Direction::out;
            if (auto const* direction = attributes.find("direction")) {
                if (*direction == "out")
                    entry.direction = Direction::out;
                else if (*direction == "in" && parent.kind == Kind::method)
                    entry.direction = Direction::in;
                else if (*direction == "in")
                    here().fail("a signal's argument has direction \"in\"; signal arguments only go out");
                else
                    here().fail("unknown direction \"" + *direction + "\" (in or out)");
            }
            open.kind = Kind::argument;
            open.argument = &entry;
        } else if (tag == "annotation") {
            std::vector<Annotation>* list = nullptr;
            switch (parent.kind) {
            case Kind::interface:
                list = &parent.interface->annotations;
                break;
            case Kind::method:
                list = &parent.method->annotations;
                break;
            case Kind::signal:
                list = &parent.signal->annotations;
                break;
            case Kind::property:
                list = &parent.property->annotations;
                break;
            case Kind::argument:
                list = &parent.argument->annotations;
                break;
            default:
                refuse();
            }
            auto& entry = list->emplace_back();
            entry.name = required(attributes, "name", tag);
            entry.value = required(attributes, "value", tag);
            entry.where = here();
            open.kind = Kind::annotation;
        } else {
            here().fail("unknown element <" + tag + ">");
        }
        check_all_used(attributes, tag);
        stack_.push_back(std::move(open));
    }

    void end(char const*)
    {
        Open const closing = std::move(stack_.back());
        stack_.pop_back();
        pending_comment_.clear();
        Open& parent = stack_.back();
        if (closing.kind == Kind::doc) {
            if (parent.kind == Kind::doc) {
                if (!is_inline_markup(closing.tag))
                    doc_text_ += "\n\f\n";
                return;
            }
            std::string* target = nullptr;
            switch (parent.kind) {
            case Kind::interface:
                target = &parent.interface->doc;
                break;
            case Kind::method:
                target = &parent.method->doc;
                break;
            case Kind::signal:
                target = &parent.signal->doc;
                break;
            case Kind::property:
                target = &parent.property->doc;
                break;
            case Kind::argument:
                target = &parent.argument->doc;
                break;
            default:
                break; // documentation of a node: nothing generated carries it
            }
            if (target)
                append_doc(*target, fold_paragraphs(doc_text_));
            doc_text_.clear();
        }
    }

    void text(std::string const& chunk)
    {
        Kind const kind = stack_.back().kind;
        if (kind == Kind::doc) {
            doc_text_ += chunk;
            return;
        }
        if (kind == Kind::foreign || is_blank(chunk))
            return;
        pending_comment_.clear();
        here().fail(
            "unexpected text \"" + trim(chunk).substr(0, 40) + "\" inside <" + stack_.back().tag + ">");
    }

    void comment(char const* text)
    {
        if (stack_.back().kind == Kind::doc || stack_.back().kind == Kind::foreign)
            return;
        pending_comment_ = text;
    }

    std::string file_;
    XML_Parser parser_ = nullptr;
    Document document_;
    std::vector<Open> stack_;
    std::string pending_comment_;
    std::string doc_text_;
    bool seen_root_ = false;
    std::exception_ptr error_;
};

} // namespace

Document read_xml(std::string const& text, std::string const& file)
{
    return Reader(file).run(text);
}

Document read_xml_file(std::string const& path)
{
    std::ifstream in(path, std::ios::binary);
    if (!in)
        throw InputError(path, 0, "cannot open: " + std::generic_category().message(errno));
    std::ostringstream content;
    content << in.rdbuf();
    if (in.bad())
        throw InputError(path, 0, "cannot read: " + std::generic_category().message(errno));
    return read_xml(content.str(), path);
}

} // namespace tarvek::codegen
