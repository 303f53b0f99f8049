#include "function.h"

#include <algorithm>
#include <cstdio>
#include <deque>
#include <memory>

namespace sonetrix {

namespace {

// Never destroyed: functions may outlive the static objects.
std::deque<FunctionRecord> &records() {
    static auto &all = *std::make_unique<std::deque<FunctionRecord>>().release();
    return all;
}

thread_local bool closedFunctions = false;

Ref text(std::string_view view) {
    return checked(PyUnicode_FromStringAndSize(view.data(), static_cast<Py_ssize_t>(view.size())));
}

// The record of a line in a table; `className` is empty for a function of the module.
FunctionRecord &newRecord(const Method &method, std::string_view className, bool isMethod) {
    if (*method.entry.record != nullptr && (*method.entry.record)->method != &method) {
        raise(PyExc_SystemError, "two functions share one body");
    }
    FunctionRecord &record = records().emplace_back();
    record.method = &method;
    record.qualifiedName = "sonetrix." + std::string(className) + (className.empty() ? "" : ".") + method.name;
    record.doc = signatureLine(method, isMethod) + method.doc;
    record.definition = {
        .ml_name = method.name,
        .ml_meth = reinterpret_cast<PyCFunction>(reinterpret_cast<void *>(method.entry.call)),
        .ml_flags = METH_FASTCALL | METH_KEYWORDS,
        .ml_doc = record.doc.c_str(),
    };
    *method.entry.record = &record;
    return record;
}

std::string_view shortName(PyTypeObject *type) noexcept {
    const std::string_view name = type->tp_name;
    return name.substr(name.rfind('.') + 1);
}

// Of the parameter with this name; past the end where there is none.
std::size_t indexOf(const Signature &signature, PyObject *name) noexcept {
    const auto length = static_cast<std::size_t>(PyUnicode_IS_ASCII(name) ? PyUnicode_GET_LENGTH(name) : 0);
    const std::string_view text(static_cast<const char *>(PyUnicode_DATA(name)), length);
    const auto found = std::ranges::find(signature.parameters(), text, &Parameter::name);
    return static_cast<std::size_t>(found - signature.parameters().begin());
}

// A Python function of the same signature, with its annotations, that calls the builtin one.
Ref annotated(const Ref &builtin, const Method &method) {
    std::string arguments;
    for (const Parameter &parameter : method.signature.parameters()) {
        arguments.append(parameter.name).append(", ");
    }
    const std::string source = std::string("from __future__ import annotations\ndef ") + method.name +
                               method.signature.text() + ": return builtin(" + arguments + ")\n";
    Ref code = checked(Py_CompileString(source.c_str(), "<sonetrix>", Py_file_input));
    Ref globals = checked(Py_BuildValue("{sssO}", "__name__", "sonetrix", "builtin", builtin.get()));
    Ref locals = checked(PyDict_New());
    checked(PyEval_EvalCode, code.get(), globals.get(), locals.get());
    Ref function = Ref::borrow(PyDict_GetItemString(locals.get(), method.name));
    for (const char *name : {"__doc__", "__qualname__"}) {
        const Ref value = checked(PyObject_GetAttrString, builtin.get(), name);
        checked(PyObject_SetAttrString, function.get(), name, value.get());
    }
    return function;
}

} // namespace

std::string signatureLine(const Method &method, bool isMethod) {
    std::string line = std::string(method.name) + "(" + (isMethod ? "$self" : "");
    const char *separator = isMethod ? ", " : "";
    for (const auto &[name, fallback] : method.signature.parameters()) {
        line.append(separator).append(name).append(fallback.empty() ? "" : "=").append(fallback);
        separator = ", ";
    }
    return line + ")\n--\n\n";
}

Ref newFunction(const Method &method, PyObject *owner) {
    const std::string_view className =
        PyType_Check(owner) ? shortName(reinterpret_cast<PyTypeObject *>(owner)) : std::string_view();
    Ref moduleName = text("sonetrix");
    Ref function = checked(PyCFunction_NewEx(&newRecord(method, className, false).definition, owner, moduleName.get()));
    if (method.annotations == Annotations::no) {
        return function;
    }
    function = annotated(function, method);
    auto *staticMethod = reinterpret_cast<PyObject *>(&PyStaticMethod_Type);
    return PyType_Check(owner) ? checked(PyObject_CallOneArg, staticMethod, function.get()) : function;
}

void addMethods(PyTypeObject *type, std::span<const Method> methods) {
    for (const Method &method : methods) {
        Ref descriptor = checked(PyDescr_NewMethod(type, &newRecord(method, shortName(type), true).definition));
        checked(PyObject_SetAttrString, reinterpret_cast<PyObject *>(type), method.name, descriptor.get());
    }
}

void bindArguments(const Method &method,
    PyObject *const *positional,
    std::size_t positionalCount,
    PyObject *keywordNames,
    std::span<PyObject *> slots) {
    const Py_ssize_t keywordCount = keywordNames == nullptr ? 0 : PyTuple_GET_SIZE(keywordNames);
    bool fits = positionalCount <= slots.size();
    std::copy_n(positional, fits ? positionalCount : 0, slots.begin());
    for (Py_ssize_t index = 0; fits && index < keywordCount; ++index) {
        const std::size_t place = indexOf(method.signature, PyTuple_GET_ITEM(keywordNames, index));
        fits = place != slots.size() && slots[place] == nullptr;
        if (fits) {
            slots[place] = positional[positionalCount + static_cast<std::size_t>(index)];
        }
    }
    if (fits && std::ranges::count(slots.first(method.signature.required()), nullptr) == 0) {
        return;
    }
    // Something is wrong with the call: the interpreter finds it.
    Ref tuple = checked(PyTuple_New(static_cast<Py_ssize_t>(positionalCount)));
    for (std::size_t index = 0; index < positionalCount; ++index) {
        PyTuple_SET_ITEM(tuple.get(), static_cast<Py_ssize_t>(index), Py_NewRef(positional[index]));
    }
    Ref dict = checked(PyDict_New());
    for (Py_ssize_t index = 0; index < keywordCount; ++index) {
        PyObject *value = positional[positionalCount + static_cast<std::size_t>(index)];
        checked(PyDict_SetItem(dict.get(), PyTuple_GET_ITEM(keywordNames, index), value));
    }
    bindArguments(method, tuple.get(), dict.get(), slots);
}

void bindArguments(const Method &method, PyObject *positional, PyObject *keywords, std::span<PyObject *> slots) {
    std::array<std::string, Signature::maximumParameters> names;
    std::array<char *, Signature::maximumParameters + 1> nameList{};
    std::string format;
    for (std::size_t index = 0; index < method.signature.size(); ++index) {
        names[index] = method.signature.parameters()[index].name;
        nameList[index] = names[index].data();
        format += index == method.signature.required() ? "|O" : "O";
    }
    format.append(":").append(method.name);
    std::array<PyObject *, Signature::maximumParameters> values{};
    auto &[first, second, third, fourth] = values;
    if (PyArg_ParseTupleAndKeywords(
            positional, keywords, format.c_str(), nameList.data(), &first, &second, &third, &fourth) == 0) {
        throw PythonError();
    }
    std::copy_n(values.begin(), slots.size(), slots.begin());
}

void closeFunctions() noexcept { detail::functionsAreClosed = closedFunctions = true; }

namespace detail {

void refuseOtherThreads() {
    if (!closedFunctions) {
        raise(PyExc_RuntimeError, "the interpreter is ending");
    }
}

PyObject *fail(const char *qualifiedName) noexcept {
    translateException();
    addTraceback(qualifiedName);
    return nullptr;
}

PyObject *fail(const char *className, const char *slot) noexcept {
    std::array<char, 64> name{};
    std::snprintf(name.data(), name.size(), "sonetrix.%s.%s", className, slot);
    return fail(name.data());
}

} // namespace detail

} // namespace sonetrix
