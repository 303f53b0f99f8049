#include "lists/lists.h"

#include <cstring>
#include <gtest/gtest.h>
#include <limits>
#include <memory>
#include <string>
#include <vector>

using namespace sonetrix::dev;

namespace {

template <class List> struct Api;
template <> struct Api<ListValue> {
    static constexpr auto create = sonetrix_valueListNew;
    static constexpr auto destroy = sonetrix_valueListDestroy;
    static constexpr auto copy = sonetrix_valueListDeepCopy;
    static constexpr auto merge = sonetrix_valueListMerge;
    static int32_t addS(ListValue *list, const char *text) { return sonetrix_valueListAddS(list, text); }
};
template <> struct Api<ListKeyValue> {
    static constexpr auto create = sonetrix_keyValueListNew;
    static constexpr auto destroy = sonetrix_keyValueListDestroy;
    static constexpr auto copy = sonetrix_keyValueListDeepCopy;
    static constexpr auto merge = sonetrix_keyValueListMerge;
    static int32_t addS(ListKeyValue *list, const char *text) { return sonetrix_keyValueListAddSS(list, text, text); }
};

template <class List> struct Destroy {
    void operator()(List *list) const { Api<List>::destroy(list); }
};
template <class List> using Owned = std::unique_ptr<List, Destroy<List>>;
template <class List> Owned<List> make() { return Owned<List>{Api<List>::create()}; }

const sonetrix_value_t &valueOf(const sonetrix_value_t &record) { return record; }
const sonetrix_value_t &valueOf(const sonetrix_keyValue_t &record) { return record.value; }

template <class List> std::vector<std::string> texts(const List &list) {
    std::vector<std::string> result;
    for (const auto &record : list)
        result.emplace_back(valueOf(record).as.string);
    return result;
}

using Texts = std::vector<std::string>;

template <class List> class BothLists : public testing::Test {};
using ListTypes = testing::Types<ListValue, ListKeyValue>;
TYPED_TEST_SUITE(BothLists, ListTypes);

} // namespace

TYPED_TEST(BothLists, copiesWhatItIsGivenAndIsCopiedDeeply) {
    using A = Api<TypeParam>;
    auto list = make<TypeParam>();
    std::string text = "first";
    A::addS(list.get(), text.c_str());
    text = "CLOBBER";
    Owned<TypeParam> copy{A::copy(list.get())};
    A::addS(list.get(), "second");
    EXPECT_EQ(texts(*list), (Texts{"first", "second"}));
    list.reset();
    EXPECT_EQ(texts(*copy), Texts{"first"});
}

TYPED_TEST(BothLists, mergeMovesToTheEnd) {
    using A = Api<TypeParam>;
    auto list = make<TypeParam>();
    auto other = make<TypeParam>();
    A::addS(other.get(), "a");
    EXPECT_EQ(A::merge(list.get(), other.get()), 0); // into an empty list
    EXPECT_TRUE(other->empty());
    A::addS(other.get(), "b");
    A::addS(other.get(), "c");
    EXPECT_EQ(A::merge(list.get(), other.get()), 0); // into one that has entries
    A::addS(other.get(), "later");
    EXPECT_EQ(A::merge(list.get(), list.get()), 0);
    EXPECT_EQ(A::merge(list.get(), nullptr), 0);
    EXPECT_EQ(texts(*other), Texts{"later"});
    other.reset();
    EXPECT_EQ(texts(*list), (Texts{"a", "b", "c"}));
}

TYPED_TEST(BothLists, nullArgumentsAreRefused) {
    using A = Api<TypeParam>;
    EXPECT_NE(A::addS(nullptr, "x"), 0);
    EXPECT_NE(A::addS(make<TypeParam>().get(), nullptr), 0);
    EXPECT_NE(A::merge(nullptr, make<TypeParam>().get()), 0);
    EXPECT_EQ(A::copy(nullptr), nullptr);
    A::destroy(nullptr);
}

TEST(ListValueTest, everyTypeKeepsItsBits) {
    auto list = make<ListValue>();
    const float nan = std::numeric_limits<float>::signaling_NaN();
    const int32_t integers[] = {INT32_MIN, -1, INT32_MAX};
    const float floats[] = {-0.0f, std::numeric_limits<float>::denorm_min()};
    std::vector<float> many(200'000, 0.25f);
    sonetrix_valueListAddU32(list.get(), UINT32_MAX);
    sonetrix_valueListAddI32(list.get(), INT32_MIN);
    sonetrix_valueListAddF(list.get(), nan);
    sonetrix_valueListAddD(list.get(), 0.1);
    sonetrix_valueListAddAi32(list.get(), integers, 3);
    sonetrix_valueListAddAfloat(list.get(), floats, 2);
    sonetrix_valueListAddAfloat(list.get(), nullptr, 0);
    sonetrix_valueListAddAfloat(list.get(), many.data(), many.size());
    const sonetrix_value_t expected[] = {valueRecord(UINT32_MAX), valueRecord(INT32_MIN), valueRecord(nan),
        valueRecord(0.1), valueRecord(std::span<const int32_t>(integers)), valueRecord(std::span<const float>(floats)),
        valueRecord(std::span<const float>()), valueRecord(std::span<const float>(many))};
    Owned<ListValue> copy{sonetrix_valueListDeepCopy(list.get())};
    ASSERT_EQ(list->size(), std::size(expected));
    for (size_t i = 0; i < std::size(expected); ++i) {
        EXPECT_TRUE(identical((*list)[i], expected[i])) << i;
        EXPECT_TRUE(identical((*copy)[i], expected[i])) << i;
    }
    EXPECT_FALSE(identical(expected[2], valueRecord(std::numeric_limits<float>::quiet_NaN())));
    EXPECT_FALSE(identical(expected[5], expected[6]));
}

TEST(ListValueTest, anImpossibleArrayIsRefused) {
    auto list = make<ListValue>();
    const int32_t one = 1;
    EXPECT_NE(sonetrix_valueListAddAi32(list.get(), nullptr, 1), 0);
    EXPECT_NE(sonetrix_valueListAddAi32(list.get(), &one, SIZE_MAX), 0);
    EXPECT_NE(sonetrix_valueListAddAi32(list.get(), &one, SIZE_MAX / 8), 0);
    EXPECT_TRUE(list->empty());
}

TEST(ListValueTest, forEachGoesOnAfterAFailureAndSurvivesAdditions) {
    auto list = make<ListValue>();
    for (int i = 0; i < 4; ++i)
        sonetrix_valueListAddS(list.get(), std::to_string(i).c_str());
    struct Visit {
        ListValue *list;
        Texts seen;
    } visit{list.get(), {}};
    const auto callback = [](const sonetrix_value_t *value, void *user) -> int32_t {
        auto &self = *static_cast<Visit *>(user);
        for (int i = 0; i < 100; ++i)
            sonetrix_valueListAddS(self.list, "added");
        self.seen.emplace_back(value->as.string);
        return -1;
    };
    EXPECT_EQ(sonetrix_valueListForEach(list.get(), callback, &visit), -1);
    EXPECT_EQ(visit.seen, (Texts{"0", "1", "2", "3"}));
    EXPECT_EQ(list->size(), 404U);
    EXPECT_NE(sonetrix_valueListForEach(list.get(), nullptr, nullptr), 0);
    EXPECT_NE(sonetrix_valueListForEach(nullptr, callback, &visit), 0);
}

TEST(ListKeyValueTest, removeKeyTakesAllOfThatKeyAndOnlyThose) {
    auto list = make<ListKeyValue>();
    for (const char *key : {"a", "ab", "a", "b"})
        sonetrix_keyValueListAddSS(list.get(), key, key);
    EXPECT_EQ(sonetrix_keyValueListRemoveKey(list.get(), "a"), 0);
    EXPECT_EQ(texts(*list), (Texts{"ab", "b"}));
    EXPECT_NE(sonetrix_keyValueListRemoveKey(list.get(), "a"), 0);
    EXPECT_NE(sonetrix_keyValueListRemoveKey(list.get(), nullptr), 0);
}

TEST(ListKeyValueTest, whatStaysSurvivesAMillionRemovals) {
    auto list = make<ListKeyValue>();
    sonetrix_keyValueListAddSS(list.get(), "kept", "text");
    const std::string text(100, 'x');
    for (int i = 0; i < 1'000'000; ++i) {
        sonetrix_keyValueListAddSS(list.get(), "gone", text.c_str());
        sonetrix_keyValueListRemoveKey(list.get(), "gone");
    }
    EXPECT_EQ(texts(*list), Texts{"text"});
    EXPECT_STREQ((*list)[0].key, "kept");
}

TEST(ListKeyValueTest, lookupsWantTheRightType) {
    auto list = make<ListKeyValue>();
    const uint32_t array[] = {UINT32_MAX};
    sonetrix_keyValueListAddSS(list.get(), "text", "old");
    sonetrix_keyValueListAddSS(list.get(), "text", "new");
    sonetrix_keyValueListAddSU32(list.get(), "unsigned", UINT32_MAX);
    sonetrix_keyValueListAddSI32(list.get(), "zero", 0);
    sonetrix_keyValueListAddSI32(list.get(), "negative", -1);
    sonetrix_keyValueListAddSF(list.get(), "float", 1.0f);
    sonetrix_keyValueListAddSD(list.get(), "double", 1.0);
    sonetrix_keyValueListAddSAu32(list.get(), "array", array, 1);
    for (const char *key : {"unsigned", "negative", "array", "missing"}) {
        const char *text = nullptr;
        EXPECT_NE(sonetrix_keyValueListGetS(list.get(), key, &text), 0) << key;
    }
    const char *text = nullptr;
    EXPECT_EQ(sonetrix_keyValueListGetS(list.get(), "text", &text), 0);
    EXPECT_STREQ(text, "new");
    for (const char *key : {"text", "negative", "float", "double", "array", "missing"}) {
        uint32_t number = 7;
        EXPECT_NE(sonetrix_keyValueListGetIU(list.get(), key, &number), 0) << key;
        EXPECT_EQ(number, 7U);
    }
    uint32_t number = 7;
    EXPECT_EQ(sonetrix_keyValueListGetIU(list.get(), "zero", &number), 0);
    EXPECT_EQ(number, 0U);
    EXPECT_EQ(sonetrix_keyValueListGetIU(list.get(), "unsigned", &number), 0);
    EXPECT_EQ(number, UINT32_MAX);
}

TEST(ValueTest, initAndDeinitOwnTheText) {
    std::string text = "meter";
    sonetrix_value_t value;
    sonetrix_valueInitS(&value, text.c_str());
    text = "CLOBBER";
    EXPECT_STREQ(value.as.string, "meter");
    Value copy{value};
    sonetrix_valueDeinit(&value);
    sonetrix_valueDeinit(&value); // harmless
    const Value moved = std::move(copy);
    EXPECT_STREQ(moved.record().as.string, "meter");
    sonetrix_valueDeinit(nullptr);
    sonetrix_valueInitS(nullptr, "x");
}
