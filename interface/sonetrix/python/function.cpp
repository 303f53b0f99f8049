#include "function.h"

#include "version.h"

#include <algorithm>
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

// A parameter's parts as they stand in the signature; empty where it has none.
struct ParameterText {
    std::string_view name;
    std::string_view annotation;
    std::string_view fallback;

    explicit ParameterText(std::string_view parameter) {
        const std::size_t equals = parameter.find('=');
        const std::size_t colon = parameter.find(':');
        if (equals != std::string_view::npos) {
            fallback = Signature::trim(parameter.substr(equals + 1));
            parameter = parameter.substr(0, equals);
        }
        name = Signature::trim(parameter.substr(0, colon));
        if (colon != std::string_view::npos) {
            annotation = Signature::trim(parameter.substr(colon + 1));
        }
    }
};

std::string_view returnAnnotation(std::string_view signature) {
    const std::size_t arrow = signature.rfind("-> ");
    return arrow == std::string_view::npos ? std::string_view() : signature.substr(arrow + 3);
}

// The record of a builtin function or method descriptor, or AttributeError where it is not one of ours.
const FunctionRecord &recordOf(PyObject *object, const char *attribute) {
    const PyMethodDef *definition = Py_IS_TYPE(object, &PyMethodDescr_Type)
                                        ? reinterpret_cast<PyMethodDescrObject *>(object)->d_method
                                        : reinterpret_cast<PyCFunctionObject *>(object)->m_ml;
    for (const FunctionRecord &record : records()) {
        if (&record.definition == definition) {
            return record;
        }
    }
    raiseFormat(PyExc_AttributeError, "'%.100s' object has no attribute '%s'", Py_TYPE(object)->tp_name, attribute);
}

// A getter's border: no traceback entry, for an attribute that is missing as it always was.
template <class Body> PyObject *getter(Body &&body) noexcept {
    const LibraryFrame frame;
    try {
        return body().release();
    } catch (...) {
        translateException();
        return nullptr;
    }
}

PyObject *getAnnotations(PyObject *object, void *) noexcept {
    return getter([object] {
        const std::string_view signature = recordOf(object, "__annotations__").method->signature.text();
        Ref annotations = checked(PyDict_New());
        const auto add = [&annotations](std::string_view name, std::string_view annotation) {
            if (!annotation.empty()) {
                checked(PyDict_SetItem(annotations.get(), text(name).get(), text(annotation).get()));
            }
        };
        std::string_view list = Signature::parameterList(signature);
        while (!list.empty()) {
            const ParameterText parameter(Signature::takeParameter(list));
            add(parameter.name, parameter.annotation);
        }
        add("return", returnAnnotation(signature));
        return annotations;
    });
}

PyObject *getSignature(PyObject *object, void *) noexcept {
    return getter([object] {
        const std::string_view signature = recordOf(object, "__signature__").method->signature.text();
        Ref inspect = checked(PyImport_ImportModule("inspect"));
        Ref ast = checked(PyImport_ImportModule("ast"));
        Ref parameterClass = checked(PyObject_GetAttrString(inspect.get(), "Parameter"));
        Ref kind = checked(PyObject_GetAttrString(parameterClass.get(), "POSITIONAL_OR_KEYWORD"));
        const auto newParameter = [&](std::string_view name, std::string_view annotation, std::string_view fallback) {
            Ref arguments = checked(Py_BuildValue("(NO)", text(name).release(), kind.get()));
            Ref keywords = checked(PyDict_New());
            if (!annotation.empty()) {
                checked(PyDict_SetItemString(keywords.get(), "annotation", text(annotation).get()));
            }
            if (!fallback.empty()) {
                Ref value = checked(PyObject_CallMethod(ast.get(), "literal_eval", "N", text(fallback).release()));
                checked(PyDict_SetItemString(keywords.get(), "default", value.get()));
            }
            return checked(PyObject_Call(parameterClass.get(), arguments.get(), keywords.get()));
        };

        Ref parameters = checked(PyList_New(0));
        if (Py_IS_TYPE(object, &PyMethodDescr_Type)) {
            checked(PyList_Append(parameters.get(), newParameter("self", {}, {}).get()));
        }
        std::string_view list = Signature::parameterList(signature);
        while (!list.empty()) {
            const ParameterText parameter(Signature::takeParameter(list));
            checked(PyList_Append(
                parameters.get(), newParameter(parameter.name, parameter.annotation, parameter.fallback).get()));
        }
        Ref keywords = checked(PyDict_New());
        if (const std::string_view annotation = returnAnnotation(signature); !annotation.empty()) {
            checked(PyDict_SetItemString(keywords.get(), "return_annotation", text(annotation).get()));
        }
        Ref signatureClass = checked(PyObject_GetAttrString(inspect.get(), "Signature"));
        Ref arguments = checked(PyTuple_Pack(1, parameters.get()));
        return checked(PyObject_Call(signatureClass.get(), arguments.get(), keywords.get()));
    });
}

PyGetSetDef attributes[] = {
    {"__annotations__", getAnnotations, nullptr, nullptr, nullptr},
    {"__signature__", getSignature, nullptr, nullptr, nullptr},
};

// "link(p1, p2=None)\n--\n\n", the interpreter's own form, which has no annotations.
std::string signatureLine(const Method &method, bool isMethod) {
    std::string line = std::string(method.name) + "(" + (isMethod ? "$self" : "");
    const char *separator = isMethod ? ", " : "";
    std::string_view list = Signature::parameterList(method.signature.text());
    while (!list.empty()) {
        const ParameterText parameter(Signature::takeParameter(list));
        line.append(separator).append(parameter.name);
        if (!parameter.fallback.empty()) {
            line.append("=").append(parameter.fallback);
        }
        separator = ", ";
    }
    return line + ")\n--\n\n";
}

// The record of a line in a table; `className` is empty for a function of the module.
FunctionRecord &newRecord(const Method &method, std::string_view className, bool isMethod) {
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
        if (method.signature.name(index) == key) {
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
            const std::string name(method.signature.name(index));
            raiseFormat(
                PyExc_TypeError, "%s() missing required argument '%s' (pos %zu)", method.name, name.c_str(), index + 1);
        }
    }
}

} // namespace

void addFunctionAttributes() {
    for (PyTypeObject *type : {&PyCFunction_Type, &PyMethodDescr_Type}) {
        for (PyGetSetDef &attribute : attributes) {
            Ref descriptor = checked(PyDescr_NewGetSet(type, &attribute));
            checked(PyDict_SetItemString(version::typeDict(type).get(), attribute.name, descriptor.get()));
        }
        PyType_Modified(type);
    }
}

Ref newFunction(const Method &method, PyObject *owner) {
    const std::string_view className =
        PyType_Check(owner) ? shortName(reinterpret_cast<PyTypeObject *>(owner)) : std::string_view();
    Ref moduleName = text("sonetrix");
    return checked(PyCFunction_NewEx(&newRecord(method, className, false).definition, owner, moduleName.get()));
}

void addMethods(PyTypeObject *type, std::span<const Method> methods) {
    for (const Method &method : methods) {
        Ref descriptor = checked(PyDescr_NewMethod(type, &newRecord(method, shortName(type), true).definition));
        checked(PyObject_SetAttrString(reinterpret_cast<PyObject *>(type), method.name, descriptor.get()));
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

namespace detail {

PyObject *fail(const FunctionRecord &function) noexcept {
    translateException();
    addTraceback(function.qualifiedName.c_str());
    return nullptr;
}

} // namespace detail

} // namespace sonetrix
