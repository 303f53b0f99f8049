// The class `listKeyValue`: an engine key/value list.

#include "list_key_value.h"

#include <functional>
#include <string_view>

namespace sonetrix {

namespace {

constexpr Py_ssize_t usualNotification = 10; // entries
constexpr Py_ssize_t cachedKeysOfDict = 64;
constexpr std::size_t longestCachedKey = 64;

// Raw and owned: the interpreter is gone when static objects are destroyed. dropKeyCache() lets them go in time.
std::array<PyObject *, 512> keyCache{};

// ------------------------------------------------------------------------------------------------------- writing

class KeyValueTarget {
public:
    // Unlike a value list's, whose names are "int32" and "uint32".
    static inline const InternedString &int32ArrayName = "int"_id;
    static inline const InternedString &uint32ArrayName = "uint"_id;
    static constexpr bool storesUInt32Arrays = true;
    static constexpr bool charPointerIsString = true;
    static constexpr const char *appendTupleName = "sonetrix.listKeyValue.appendTuple";

    KeyValueTarget(ListKeyValue &list, const char *key) noexcept : list_(list), key_(key) {}

    void add(const char *text) const { sonetrix_keyValueListAddSS(list_.growing(), key_, text); }
    void add(std::int32_t number) const { sonetrix_keyValueListAddSI32(list_.growing(), key_, number); }
    void add(std::uint32_t number) const { sonetrix_keyValueListAddSU32(list_.growing(), key_, number); }
    void add(float number) const { sonetrix_keyValueListAddSF(list_.growing(), key_, number); }
    void add(double number) const { sonetrix_keyValueListAddSD(list_.growing(), key_, number); }
    void add(const std::int32_t *elements, std::size_t count) const {
        sonetrix_keyValueListAddSAi32(list_.growing(), key_, elements, count);
    }
    void add(const std::uint32_t *elements, std::size_t count) const {
        sonetrix_keyValueListAddSAu32(list_.growing(), key_, elements, count);
    }
    void add(const float *elements, std::size_t count) const {
        sonetrix_keyValueListAddSAfloat(list_.growing(), key_, elements, count);
    }

private:
    ListKeyValue &list_;
    const char *key_;
};

[[gnu::always_inline]] inline EngineText toKey(PyObject *object) {
    EngineText key = EngineText::fromName(object);
    if (!key) {
        raisePlain("key type not supported");
    }
    return key;
}

Ref self(ListKeyValue &list) { return Ref::borrow(reinterpret_cast<PyObject *>(&list)); }

[[gnu::always_inline]] inline void appendEntry(ListKeyValue &list, PyObject *key, PyObject *value, PyObject *selector) {
    list.writable();
    const EngineText text = toKey(key);
    appendValue(KeyValueTarget(list, text.get()), value, Selector(selector));
}

Ref append(ListKeyValue &list, Arguments arguments) {
    appendEntry(list, arguments[0], arguments[1], arguments.get(2, Py_None));
    return self(list);
}

Ref remove(ListKeyValue &list, Arguments arguments) {
    const EngineText key = toKey(arguments[0]);
    if (list.list != nullptr) {
        sonetrix_keyValueListRemoveKey(list.writable(), key.get());
    }
    return self(list);
}

std::array<Ref, 2> unpackPair(PyObject *pair) {
    std::array<Ref, 2> parts;
    if (const std::size_t count = unpack(pair, parts); count < parts.size()) {
        raiseFormat(PyExc_ValueError, "not enough values to unpack (expected 2, got %zu)", count);
    }
    return parts;
}

// Calls `action(key, value)` for each item that the dict has now, in order.
template <class Action> void forEachItem(PyObject *dict, Action &&action) {
    if (!PyDict_Check(dict)) {
        raiseArgumentType("d", "dict", dict);
    }
    forEach(checked(PyMapping_Items, dict).get(), [&](PyObject *item) {
        const auto [key, value] = unpackPair(item); // a subclass's items() may give anything
        action(key.get(), value.get());
    });
}

// What `self.append(key, value, selector)` does, without a selector `self.append(key, value)`; the look-up serves an
// append that is not this class's own.
void callAppend(ListKeyValue &list, PyObject *key, PyObject *value, PyObject *selector = nullptr) {
    auto *object = reinterpret_cast<PyObject *>(&list);
    if (ListKeyValue::hasOriginalMethods(object)) {
        appendEntry(list, key, value, selector == nullptr ? Py_None : selector);
    } else {
        callMethod(object, "append"_id, key, value, selector); // a null argument ends the arguments
    }
}

Ref appendFromDict(ListKeyValue &list, Arguments arguments) {
    forEachItem(arguments[0], [&](PyObject *key, PyObject *value) { callAppend(list, key, value); });
    return self(list);
}

Ref appendFromDictType(ListKeyValue &list, Arguments arguments) {
    forEachItem(arguments[0], [&](PyObject *key, PyObject *pair) { appendTyped(list, key, pair); });
    return self(list);
}

// ------------------------------------------------------------------------------------------------------- reading

// The key as bytes. The first keys of a dict come from a small cache: notifications and meters bring the same few again
// and again, while a long list would only wash the cache out.
Ref keyBytes(const char *key, PyObject *dict) {
    const auto newBytes = [key] { return checked(PyBytes_FromString(key)); };
    const std::string_view text = key;
    if (!PyDict_Check(dict) || PyDict_GET_SIZE(dict) >= cachedKeysOfDict || text.size() > longestCachedKey) {
        return newBytes();
    }
    PyObject *&cached = keyCache[std::hash<std::string_view>()(text) % keyCache.size()];
    if (cached == nullptr || text != PyBytes_AS_STRING(cached)) {
        Ref::steal(std::exchange(cached, newBytes().release()));
    }
    return Ref::borrow(cached);
}

std::int32_t readPlain(const sonetrix_keyValue_t *entry, void *user) {
    return readRecord(entry, user, [](const sonetrix_keyValue_t &record, PyObject *container) {
        const Ref value = toPython(record.value);
        checked(PyDict_SetItem(container, keyBytes(record.key, container).get(), value.get()));
    });
}

std::int32_t readTyped(const sonetrix_keyValue_t *entry, void *user) {
    return readRecord(entry, user, [](const sonetrix_keyValue_t &record, PyObject *container) {
        if (!PyDict_Check(container)) {
            return reportContainer(container, "dict", "sonetrix.listKeyValue.create_list_keyvalue_type_nogil");
        }
        const Ref value = toTypedPair(record.value);
        checked(PyDict_SetItem(container, keyBytes(record.key, container).get(), value.get()));
    });
}

// Calls a method of a temporary object that has the engine's list, which stays the engine's.
Ref callOnBorrowed(sonetrix_cListKeyValue_t *list, const InternedString &method) {
    Ref object = ListKeyValue::newEmpty();
    ListKeyValue::of(object).list = {list, [](sonetrix_cListKeyValue_t *) {}};
    const auto detach = [](ListKeyValue *wrapper) { wrapper->list.reset(); };
    const std::unique_ptr<ListKeyValue, decltype(detach)> borrower(&ListKeyValue::of(object), detach);
    return callMethod(object.get(), method);
}

// dict(filter(callable, dict.items()))
Ref filtered(Ref dict, PyObject *callable) {
    if (callable == Py_None) {
        return dict;
    }
    Ref items = callMethod(dict.get(), "items"_id);
    Ref kept = call(moduleGlobal("filter"_id).get(), callable, items.get());
    return call(reinterpret_cast<PyObject *>(&PyDict_Type), kept.get());
}

template <auto callback> Ref readObject(ListKeyValue &object, Arguments arguments) {
    Ref dict;
    {
        const auto list = object.list; // shared until it is read, not while the callable runs
        dict = ListKeyValue::read(list.get(), object.expected, callback);
    }
    object.expected = PyDict_GET_SIZE(dict.get());
    return filtered(std::move(dict), arguments.get(0, Py_None));
}

constexpr Method methods[] = {
    {"dup", "() -> listKeyValue", ListKeyValue::dupDoc, method<ListKeyValue, ListKeyValue::dup>},
    {"merge", "(other: listKeyValue)", ListKeyValue::mergeDoc, method<ListKeyValue, ListKeyValue::merge>},
    {"append", "(k: str | bytes, v: str | bytes | int | float | tuple, type=None) -> listKeyValue",
        "Appends the provided key/value couple to the current list.\n\n"
        "- k: the key, ASCII\n"
        "- v: str and bytes are stored as a string, int as int32, float as a 32-bit float, a tuple of int or of float\n"
        "  as an array\n"
        "- type: None, or what to store: \"string\", \"int32\", \"uint32\", \"float\", \"double\", for a tuple\n"
        "  \"int\", \"uint\", \"float\", or one of the ctypes classes c_int32, c_uint32, c_float, c_double, c_char_p\n"
        "Returns: a reference to the listKeyValue object itself\n"
        "Exception when value and type do not go together, OverflowError when the value is out of the type's range.",
        method<ListKeyValue, append>},
    {"remove", "(k: str | bytes) -> listKeyValue",
        "Removes the element with key \"k\" from the list, if present.\n\n"
        "Returns: a reference to the listKeyValue object itself",
        method<ListKeyValue, remove>},
    {"appendFromDict", "(d: dict) -> listKeyValue",
        "Appends each item of the dictionary, as append(key, value) does.\n\n"
        "Returns: a reference to the listKeyValue object itself",
        method<ListKeyValue, appendFromDict>},
    {"appendFromDictType", "(d: dict) -> listKeyValue",
        "Appends each item of a dictionary whose values are pairs of value and type name.\n\n"
        "Scalars and \"afloat\" arrays that toDictType() gave can be appended again; integer arrays cannot.\n"
        "Returns: a reference to the listKeyValue object itself",
        method<ListKeyValue, appendFromDictType>},
    {"toDict", "(cb=None) -> dict",
        "Returns a dictionary made from the list elements.\n\n"
        "if callable object is passed it is used to filter the output dictionary\n"
        "Keys and strings are bytes, arrays are tuples. The callable receives each (key, value) tuple.",
        method<ListKeyValue, readObject<readPlain>>},
    {"toDictType", "(cb=None) -> dict",
        "Returns a dictionary made from the list elements. Each item is a tuple with value and type.\n\n"
        "if callable object is passed it is used to filter the output dictionary",
        method<ListKeyValue, readObject<readTyped>>},
    {"__reduce__", "()", ListKeyValue::reduceDoc, method<ListKeyValue, ListKeyValue::refuseReduce>},
};

} // namespace

Ref toDict(sonetrix_cListKeyValue_t *list, Py_ssize_t expected) {
    return ListKeyValue::read(list, expected, readPlain);
}

Ref toDictType(sonetrix_cListKeyValue_t *list) { return ListKeyValue::read(list, 0, readTyped); }

Ref borrowedToDict(sonetrix_cListKeyValue_t *list) {
    return ListKeyValue::isOriginalClass() ? toDict(list, usualNotification) : callOnBorrowed(list, "toDict"_id);
}

Ref borrowedDup(sonetrix_cListKeyValue_t *list) {
    return ListKeyValue::isOriginalClass() ? ListKeyValue::init(sonetrix_keyValueListDeepCopy(list))
                                           : callOnBorrowed(list, "dup"_id);
}

void appendTyped(ListKeyValue &list, PyObject *key, PyObject *pair) {
    const auto [value, type] = unpackPair(pair);
    // Of arrays, the type of an element. The integer ones are not append()'s own selectors for arrays: it refuses them.
    static const std::array<std::array<const InternedString *, 2>, 3> arrays = {
        {{&"afloat"_id, &"float"_id}, {&"aint32"_id, &"int32"_id}, {&"auint32"_id, &"uint32"_id}}};
    for (const auto &[name, selector] : arrays) {
        if (Selector(type.get()).isText(*name)) {
            if (!PyTuple_Check(value.get())) {
                raiseFormat(PyExc_ValueError, "%U as to contain a tuple", name->get());
            }
            return callAppend(list, key, value.get(), selector->get());
        }
    }
    callAppend(list, key, value.get(), type.get());
}

void dropKeyCache() noexcept {
    for (PyObject *&key : keyCache) {
        Ref::steal(std::exchange(key, nullptr));
    }
}

void addListKeyValue(PyObject *module) {
    ListKeyValue::addClass(module,
        "listKeyValue()\n--\n\n"
        "Utility class to wrap the C structure \"sonetrix_cListKeyValue_t\" from SoneTrix in Python.",
        methods);
}

} // namespace sonetrix
