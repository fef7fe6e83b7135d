// SPDX-License-Identifier: LGPL-2.1-or-later
// The way a state file takes, end to end: capture a live object, write_json, read_json into
// a fresh document, apply to a second live object, and compare bit for bit. The values are
// those that a lossy step would change: doubles that the default number parsing rounds
// differently, subnormals, the extremes of each integer width, dictionaries with keys of
// every basic type, nested and empty containers.
#include <tarvek/common/exceptions.hpp>
#include <tarvek/provider/interface.hpp>
#include <tarvek/provider/object.hpp>
#include <tarvek/provider/registry.hpp>
#include <tarvek/provider/storage/documents.hpp>

#include <gtest/gtest.h>

#include <bit>
#include <cstdint>
#include <limits>
#include <map>
#include <sstream>
#include <string>
#include <tuple>
#include <vector>

namespace storage = tarvek::provider::storage;

namespace {

template <class T> using Limits = std::numeric_limits<T>;

using Widths = std::tuple<std::uint8_t, std::int16_t, std::uint16_t, std::int32_t, std::uint32_t,
    std::int64_t, std::uint64_t>;
using Nested = std::map<std::string,
    std::vector<std::map<std::int16_t, std::tuple<double, std::vector<std::string>>>>>;

// Bit-exact equality: doubles by their bits, so that -0.0 differs from 0.0 and a value one
// unit off in the last place differs from the right one; everything else by ==, element by
// element.
bool same(double a, double b)
{
    return std::bit_cast<std::uint64_t>(a) == std::bit_cast<std::uint64_t>(b);
}
template <class T> bool same(T const& a, T const& b);
template <class T> bool same(std::vector<T> const& a, std::vector<T> const& b);
template <class K, class V> bool same(std::map<K, V> const& a, std::map<K, V> const& b);
template <class... T> bool same(std::tuple<T...> const& a, std::tuple<T...> const& b);

template <class T> bool same(T const& a, T const& b)
{
    return a == b;
}
template <class T> bool same(std::vector<T> const& a, std::vector<T> const& b)
{
    if (a.size() != b.size())
        return false;
    for (std::size_t i = 0; i < a.size(); ++i)
        if (!same(a[i], b[i]))
            return false;
    return true;
}
template <class K, class V> bool same(std::map<K, V> const& a, std::map<K, V> const& b)
{
    if (a.size() != b.size())
        return false;
    for (auto i = a.begin(), j = b.begin(); i != a.end(); ++i, ++j)
        if (!same(i->first, j->first) || !same(i->second, j->second))
            return false;
    return true;
}
template <class... T> bool same(std::tuple<T...> const& a, std::tuple<T...> const& b)
{
    return std::apply(
        [&](auto const&... x) {
            return std::apply([&](auto const&... y) { return (same(x, y) && ...); }, b);
        },
        a);
}

// One property of each shape that can go wrong. The defaults differ from the values that
// set_all gives, so that every property is stored with its value, and none is null.
class Extremes : public tarvek::provider::Interface {
public:
    Extremes()
        : Interface("org.sample.Extremes")
    {
    }

    Property<double> sum{*this, "Sum", 0.0};
    Property<double> subnormal{*this, "Subnormal", 0.0};
    // -0.0 compares equal to a default of 0.0 and would be stored as null.
    Property<double> negative_zero{*this, "NegativeZero", 1.0};
    Property<std::vector<double>> doubles{*this, "Doubles", {}};
    Property<Widths> smallest{*this, "Smallest", {1, 1, 1, 1, 1, 1, 1}};
    Property<Widths> largest{*this, "Largest", {}};
    Property<std::map<std::uint8_t, std::string>> by_byte{*this, "ByByte", {}};
    Property<std::map<std::int16_t, std::string>> by_int16{*this, "ByInt16", {}};
    Property<std::map<std::uint16_t, std::string>> by_uint16{*this, "ByUint16", {}};
    Property<std::map<std::int32_t, std::string>> by_int32{*this, "ByInt32", {}};
    Property<std::map<std::uint32_t, std::string>> by_uint32{*this, "ByUint32", {}};
    Property<std::map<std::int64_t, std::string>> by_int64{*this, "ByInt64", {}};
    Property<std::map<std::uint64_t, std::string>> by_uint64{*this, "ByUint64", {}};
    Property<std::map<bool, std::int32_t>> by_bool{*this, "ByBool", {}};
    Property<std::map<double, std::string>> by_double{*this, "ByDouble", {}};
    Property<std::map<std::string, double>> by_string{*this, "ByString", {}};
    Property<std::map<tarvek::ObjectPath, std::int32_t>> by_path{*this, "ByPath", {}};
    Property<Nested> nested{*this, "Nested", {}};
    Property<std::vector<std::int32_t>> empty_list{*this, "EmptyList", {1}};
    Property<std::map<std::int32_t, std::int32_t>> empty_map{*this, "EmptyMap", {{1, 1}}};
    Property<std::string> empty_text{*this, "EmptyText", "x"};
    Property<std::vector<std::vector<std::string>>> empty_inside{*this, "EmptyInside", {}};

    static std::vector<double> tricky_doubles()
    {
        return {0.1 + 0.2, 1.0 / 3.0, 1e-310, Limits<double>::denorm_min(), Limits<double>::min(),
            Limits<double>::max(), Limits<double>::lowest(), -0.0, 2.2250738585072011e-308,
            9007199254740993.0, 1e23, 123456789.123456789, 3.0, -1e-300};
    }

    void set_all()
    {
        update([&](Values& v) {
            v.set(sum, 0.1 + 0.2);
            v.set(subnormal, 1e-310);
            v.set(negative_zero, -0.0);
            v.set(doubles, tricky_doubles());
            v.set(smallest,
                Widths{Limits<std::uint8_t>::min(), Limits<std::int16_t>::min(), Limits<std::uint16_t>::min(),
                    Limits<std::int32_t>::min(), Limits<std::uint32_t>::min(), Limits<std::int64_t>::min(),
                    Limits<std::uint64_t>::min()});
            v.set(largest,
                Widths{Limits<std::uint8_t>::max(), Limits<std::int16_t>::max(), Limits<std::uint16_t>::max(),
                    Limits<std::int32_t>::max(), Limits<std::uint32_t>::max(), Limits<std::int64_t>::max(),
                    Limits<std::uint64_t>::max()});
            v.set(by_byte, extremes_of<std::uint8_t>());
            v.set(by_int16, extremes_of<std::int16_t>());
            v.set(by_uint16, extremes_of<std::uint16_t>());
            v.set(by_int32, extremes_of<std::int32_t>());
            v.set(by_uint32, extremes_of<std::uint32_t>());
            v.set(by_int64, extremes_of<std::int64_t>());
            v.set(by_uint64, extremes_of<std::uint64_t>());
            v.set(by_bool, std::map<bool, std::int32_t>{{false, -1}, {true, 1}});
            v.set(by_double,
                std::map<double, std::string>{{0.1 + 0.2, "sum"}, {1e-310, "subnormal"},
                    {-0.0, "negative zero"}, {Limits<double>::max(), "max"},
                    {Limits<double>::lowest(), "lowest"}, {0.3, "point three"}});
            v.set(by_string, std::map<std::string, double>{{"", 1e-310}, {"12", 0.1 + 0.2}, {"true", -0.0}});
            v.set(by_path,
                std::map<tarvek::ObjectPath, std::int32_t>{
                    {tarvek::ObjectPath("/"), 1}, {tarvek::ObjectPath("/a/b_c"), 2}});
            v.set(nested,
                Nested{{"outer",
                           {{{Limits<std::int16_t>::min(), {0.1 + 0.2, {"a", ""}}}}, {},
                               {{0, {1e-310, {}}}, {7, {-0.0, {"x"}}}}}},
                    {"", {}}});
            v.set(empty_list, std::vector<std::int32_t>{});
            v.set(empty_map, std::map<std::int32_t, std::int32_t>{});
            v.set(empty_text, "");
            v.set(empty_inside, std::vector<std::vector<std::string>>{{}, {""}, {}});
        });
    }

private:
    template <class K> static std::map<K, std::string> extremes_of()
    {
        return {{Limits<K>::min(), "min"}, {K{1}, "one"}, {Limits<K>::max(), "max"}};
    }
};

struct LiveObject {
    explicit LiveObject(std::string const& path) { registry.add_object(object, tarvek::ObjectPath(path)); }

    tarvek::API_Registry registry;
    tarvek::Object object;
    Extremes& extremes = tarvek::provider::add_interface<Extremes>(object);
};

class StorageStateFile : public testing::TestWithParam<bool> {
protected:
    StorageStateFile() { source.extremes.set_all(); }

    // Capture, write, read into a fresh document, apply to the target.
    void round_trip()
    {
        std::stringstream file;
        storage::Object(source.object).write_json(file, GetParam());
        text = file.str();
        storage::Object read;
        read.read_json(file);
        read.apply(target.object);
    }

    LiveObject source{"/sample"};
    LiveObject target{"/sample"};
    std::string text;
};

#define EXPECT_CAME_BACK(member)                                                                             \
    EXPECT_TRUE(same(source.extremes.member.get(), target.extremes.member.get()))                            \
        << #member << " differs after the round trip through\n"                                              \
        << text

TEST_P(StorageStateFile, GivesBackDoublesBitForBit)
{
    round_trip();
    EXPECT_CAME_BACK(sum);
    EXPECT_CAME_BACK(subnormal);
    EXPECT_CAME_BACK(negative_zero);
    EXPECT_CAME_BACK(doubles);
    EXPECT_EQ(
        std::bit_cast<std::uint64_t>(target.extremes.sum.get()), std::bit_cast<std::uint64_t>(0.1 + 0.2));
    EXPECT_NE(target.extremes.sum.get(), 0.3);
}

TEST_P(StorageStateFile, GivesBackTheExtremesOfEveryIntegerWidth)
{
    round_trip();
    EXPECT_CAME_BACK(smallest);
    EXPECT_CAME_BACK(largest);
}

TEST_P(StorageStateFile, GivesBackDictionariesWithKeysOfEveryBasicType)
{
    round_trip();
    EXPECT_CAME_BACK(by_byte);
    EXPECT_CAME_BACK(by_int16);
    EXPECT_CAME_BACK(by_uint16);
    EXPECT_CAME_BACK(by_int32);
    EXPECT_CAME_BACK(by_uint32);
    EXPECT_CAME_BACK(by_int64);
    EXPECT_CAME_BACK(by_uint64);
    EXPECT_CAME_BACK(by_bool);
    EXPECT_CAME_BACK(by_double);
    EXPECT_CAME_BACK(by_string);
    EXPECT_CAME_BACK(by_path);
}

TEST_P(StorageStateFile, GivesBackNestedAndEmptyContainers)
{
    round_trip();
    EXPECT_CAME_BACK(nested);
    EXPECT_CAME_BACK(empty_list);
    EXPECT_CAME_BACK(empty_map);
    EXPECT_CAME_BACK(empty_text);
    EXPECT_CAME_BACK(empty_inside);
}

TEST_P(StorageStateFile, ReadsBackADocumentEqualToTheCapturedOne)
{
    round_trip();
    std::istringstream file(text);
    storage::Object read;
    read.read_json(file);
    EXPECT_TRUE(read.equals(storage::Object(source.object))) << text;
    EXPECT_TRUE(storage::Object(target.object).equals(storage::Object(source.object)));
}

INSTANTIATE_TEST_SUITE_P(
    WithAndWithoutDefaults, StorageStateFile, testing::Bool(), [](testing::TestParamInfo<bool> const& info) {
        return info.param ? "DefaultsKept" : "DefaultsStripped";
    });

// A dictionary key text that someone has edited into something else is refused whole, and
// the interface keeps its values.
TEST(StorageStateFile, RefusesAKeyTextThatIsNoNumberAndChangesNothing)
{
    LiveObject target{"/sample"};
    std::istringstream file(
        R"({"interfaces": {"org.sample.Extremes": {"properties": {"Sum": 2.5, "ByInt32": {"12": "a", "twelve": "b"}}}},)"
        R"( "path": "/sample"})");
    storage::Object read;
    read.read_json(file);
    try {
        read.apply(target.object);
        ADD_FAILURE() << "no error";
    } catch (tarvek::deserialize_error const& e) {
        EXPECT_STREQ(e.what(), "Dictionary key is not a valid int32: twelve");
    }
    EXPECT_EQ(target.extremes.sum.get(), 0.0);
    EXPECT_TRUE(target.extremes.by_int32.get().empty());
}

} // namespace
