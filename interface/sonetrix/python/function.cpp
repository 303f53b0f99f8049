#include "function.h"

#include "names.h"

#include <algorithm>
#include <string>

namespace sonetrix {

namespace {

PyObject *functionModule = nullptr;
PyObject *functionType = nullptr;
PyObject *methodType = nullptr;

FunctionObject &self(PyObject *object) noexcept { return *reinterpret_cast<FunctionObject *>(object); }

// The name as text: it is ASCII, so its bytes are in place.
const char *qualifiedName(const FunctionObject &function) noexcept {
    return static_cast<const char *>(PyUnicode_DATA(function.qualifiedName));
}

// The name without the module: "engine.link".
const char *qualName(const FunctionObject &function) noexcept {
    return qualifiedName(function) + std::string_view("sonetrix.").size();
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

PyObject *getAnnotations(PyObject *object, void *) noexcept {
    return border("sonetrix.function.__annotations__", static_cast<PyObject *>(nullptr), [object] {
        const std::string_view signature = self(object).method->signature.text();
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
        return annotations.release();
    });
}

PyObject *getSignature(PyObject *object, void *) noexcept {
    return border("sonetrix.function.__signature__", static_cast<PyObject *>(nullptr), [object] {
        const std::string_view signature = self(object).method->signature.text();
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
        if (self(object).owner != nullptr) {
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
        return checked(PyObject_Call(signatureClass.get(), arguments.get(), keywords.get())).release();
    });
}

PyObject *getName(PyObject *object, void *) noexcept { return PyUnicode_FromString(self(object).method->name); }
PyObject *getQualName(PyObject *object, void *) noexcept { return PyUnicode_FromString(qualName(self(object))); }
PyObject *getModule(PyObject *, void *) noexcept { return PyUnicode_FromString("sonetrix"); }
PyObject *getDoc(PyObject *object, void *) noexcept { return PyUnicode_FromString(self(object).method->doc); }

PyGetSetDef getters[] = {
    {"__name__", getName, nullptr, nullptr, nullptr},
    {"__qualname__", getQualName, nullptr, nullptr, nullptr},
    {"__module__", getModule, nullptr, nullptr, nullptr},
    {"__doc__", getDoc, nullptr, nullptr, nullptr},
    {"__annotations__", getAnnotations, nullptr, nullptr, nullptr},
    {"__signature__", getSignature, nullptr, nullptr, nullptr},
    {},
};

PyMemberDef members[] = {
    {"__vectorcalloffset__", T_PYSSIZET, offsetof(FunctionObject, call), READONLY, nullptr},
    {},
};

PyObject *represent(PyObject *object) noexcept {
    return PyUnicode_FromFormat("<%s %U>", Py_TYPE(object)->tp_name, self(object).qualifiedName);
}

// Pickled and copied by reference, as functions are.
PyObject *reduce(PyObject *object, PyObject *) noexcept { return getQualName(object, nullptr); }

// A function binds to nothing, so its type has no binding slot; `inspect` takes what has a `__get__` for a routine.
PyObject *bindStatic(PyObject *object, PyObject *) noexcept { return Py_NewRef(object); }

PyMethodDef functionMethods[] = {
    {"__get__", bindStatic, METH_VARARGS, nullptr},
    {"__reduce__", reduce, METH_NOARGS, nullptr},
    {},
};

PyMethodDef methodMethods[] = {
    {"__reduce__", reduce, METH_NOARGS, nullptr},
    {},
};

PyObject *bindMethod(PyObject *function, PyObject *object, PyObject *) noexcept {
    return object == nullptr ? Py_NewRef(function) : PyMethod_New(function, object);
}

int traverse(PyObject *object, visitproc visit, void *arg) noexcept {
    Py_VISIT(Py_TYPE(object));
    Py_VISIT(self(object).module);
    Py_VISIT(self(object).owner);
    return 0;
}

PyObject *callCleared(PyObject *, PyObject *const *, std::size_t, PyObject *) noexcept {
    PyErr_SetString(PyExc_RuntimeError, "the module sonetrix is gone");
    return nullptr;
}

int clear(PyObject *object) noexcept {
    self(object).call = callCleared;
    Ref::steal(std::exchange(self(object).module, nullptr));
    Ref::steal(reinterpret_cast<PyObject *>(std::exchange(self(object).owner, nullptr)));
    return 0;
}

void deallocate(PyObject *object) noexcept {
    PyObject_GC_UnTrack(object);
    clear(object);
    Ref::steal(std::exchange(self(object).qualifiedName, nullptr));
    Ref type = Ref::steal(reinterpret_cast<PyObject *>(Py_TYPE(object)));
    PyObject_GC_Del(object);
}

Ref newType(const char *name, PyMethodDef *methods, unsigned long extraFlags, PyType_Slot extraSlot) {
    PyType_Slot slots[] = {
        {Py_tp_call, reinterpret_cast<void *>(PyVectorcall_Call)},
        {Py_tp_repr, reinterpret_cast<void *>(represent)},
        {Py_tp_traverse, reinterpret_cast<void *>(traverse)},
        {Py_tp_clear, reinterpret_cast<void *>(clear)},
        {Py_tp_dealloc, reinterpret_cast<void *>(deallocate)},
        {Py_tp_getset, getters},
        {Py_tp_members, members},
        {Py_tp_methods, methods},
        extraSlot,
        {0, nullptr},
    };
    PyType_Spec spec = {
        .name = name,
        .basicsize = sizeof(FunctionObject),
        .itemsize = 0,
        .flags = static_cast<unsigned int>(Py_TPFLAGS_DEFAULT | Py_TPFLAGS_HAVE_GC | Py_TPFLAGS_HAVE_VECTORCALL |
                                           Py_TPFLAGS_IMMUTABLETYPE | Py_TPFLAGS_DISALLOW_INSTANTIATION) |
                 static_cast<unsigned int>(extraFlags),
        .slots = slots,
    };
    return checked(PyType_FromSpec(&spec));
}

Ref newCallable(PyObject *type, const Method &method, const char *className, PyTypeObject *owner) {
    Ref name =
        text(std::string("sonetrix.") + (className == nullptr ? "" : std::string(className) + ".") + method.name);
    auto *object = PyObject_GC_New(FunctionObject, reinterpret_cast<PyTypeObject *>(type));
    if (object == nullptr) {
        throw PythonError();
    }
    object->call = method.call;
    object->method = &method;
    object->module = Py_NewRef(functionModule);
    object->qualifiedName = name.release();
    object->owner = reinterpret_cast<PyTypeObject *>(Py_XNewRef(reinterpret_cast<PyObject *>(owner)));
    PyObject_GC_Track(object);
    return Ref::steal(reinterpret_cast<PyObject *>(object));
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

FunctionTypes makeFunctionTypes(PyObject *module) {
    functionModule = module;
    FunctionTypes types = {
        .function = newType("sonetrix.function", functionMethods, 0, {0, nullptr}),
        .method = newType("sonetrix.method", methodMethods, Py_TPFLAGS_METHOD_DESCRIPTOR,
            {Py_tp_descr_get, reinterpret_cast<void *>(bindMethod)}),
    };
    functionType = types.function.get();
    methodType = types.method.get();
    return types;
}

Ref newFunction(const Method &method, const char *className) {
    return newCallable(functionType, method, className, nullptr);
}

void addMethods(PyTypeObject *type, std::span<const Method> methods) {
    const std::string_view fullName = type->tp_name;
    const std::string className(fullName.substr(fullName.rfind('.') + 1));
    for (const Method &method : methods) {
        Ref callable = newCallable(methodType, method, className.c_str(), type);
        checked(PyObject_SetAttrString(reinterpret_cast<PyObject *>(type), method.name, callable.get()));
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

PyObject *fail(PyObject *callable) noexcept {
    translateException();
    addTraceback(qualifiedName(self(callable)));
    return nullptr;
}

void requireSelf(const FunctionObject &function, PyObject *const *values, std::size_t count) {
    if (count == 0) {
        raiseFormat(PyExc_TypeError, "unbound method %s() needs an argument", qualName(function));
    }
    if (function.owner == nullptr || PyObject_TypeCheck(values[0], function.owner) == 0) {
        raiseFormat(PyExc_TypeError, "method '%s' for '%s' objects doesn't apply to a '%s' object",
            function.method->name, function.owner == nullptr ? "deleted" : function.owner->tp_name,
            Py_TYPE(values[0])->tp_name);
    }
}

} // namespace detail

} // namespace sonetrix
