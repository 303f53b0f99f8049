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

[[noreturn]] void raiseCount(const Method &method, std::size_t given) {
    const Signature &signature = method.signature;
    if (signature.size() == 0) {
        raiseFormat(PyExc_TypeError, "%s() takes no arguments (%zu given)", method.name, given);
    }
    const bool exact = signature.required() == signature.size();
    const std::size_t limit = given < signature.required() ? signature.required() : signature.size();
    raiseFormat(PyExc_TypeError, "%s() takes %s %zu argument%s (%zu given)", method.name,
        exact ? "exactly" : (given < limit ? "at least" : "at most"), limit, limit == 1 ? "" : "s", given);
}

void bindKeyword(const Method &method, PyObject *name, PyObject *value, std::span<PyObject *> slots) {
    Py_ssize_t size = 0;
    const char *utf8 = PyUnicode_Check(name) ? PyUnicode_AsUTF8AndSize(name, &size) : nullptr;
    if (utf8 == nullptr) {
        PyErr_Clear();
        raiseFormat(PyExc_TypeError, "%s() keywords must be strings", method.name);
    }
    const std::string_view key(utf8, static_cast<std::size_t>(size));
    for (std::size_t index = 0; index < slots.size(); ++index) {
        if (method.signature.parameters()[index].name == key) {
            if (slots[index] != nullptr) {
                raiseFormat(PyExc_TypeError, "%s() got multiple values for argument '%U'", method.name, name);
            }
            slots[index] = value;
            return;
        }
    }
    raiseFormat(PyExc_TypeError, "%s() got an unexpected keyword argument '%U'", method.name, name);
}

void bindPositional(const Method &method, PyObject *const *values, std::size_t count, std::span<PyObject *> slots) {
    if (count > slots.size()) {
        raiseCount(method, count);
    }
    std::copy_n(values, count, slots.begin());
}

void requireComplete(const Method &method, std::size_t given, std::span<PyObject *> slots) {
    for (std::size_t index = 0; index < method.signature.required(); ++index) {
        if (slots[index] == nullptr) {
            if (given <= index) {
                raiseCount(method, given);
            }
            const std::string name(method.signature.parameters()[index].name);
            raiseFormat(
                PyExc_TypeError, "%s() missing required argument '%s' (pos %zu)", method.name, name.c_str(), index + 1);
        }
    }
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
    bindPositional(method, positional, positionalCount, slots);
    const Py_ssize_t keywordCount = keywordNames == nullptr ? 0 : PyTuple_GET_SIZE(keywordNames);
    for (Py_ssize_t index = 0; index < keywordCount; ++index) {
        bindKeyword(method, PyTuple_GET_ITEM(keywordNames, index),
            positional[positionalCount + static_cast<std::size_t>(index)], slots);
    }
    requireComplete(method, positionalCount + static_cast<std::size_t>(keywordCount), slots);
}

void bindArguments(const Method &method, PyObject *positional, PyObject *keywords, std::span<PyObject *> slots) {
    const auto positionalCount = static_cast<std::size_t>(PyTuple_GET_SIZE(positional));
    bindPositional(method, &PyTuple_GET_ITEM(positional, 0), positionalCount, slots);
    std::size_t given = positionalCount;
    if (keywords != nullptr) {
        Py_ssize_t position = 0;
        PyObject *name = nullptr;
        PyObject *value = nullptr;
        while (PyDict_Next(keywords, &position, &name, &value) != 0) {
            bindKeyword(method, name, value, slots);
            ++given;
        }
    }
    requireComplete(method, given, slots);
}

namespace {
thread_local bool closedFunctions = false;
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
