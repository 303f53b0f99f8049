#include "annotated_function.h"

#include "types.h"

#include <cstddef>

namespace sonetrix {

namespace {

struct AnnotatedFunction {
    PyObject_HEAD;
    vectorcallfunc vectorcall;
    PyObject *function; // owned
    PyObject *wrapped;  // owned: a Python function of the same signature, for inspect.signature()

    static AnnotatedFunction &of(PyObject *object) noexcept { return *reinterpret_cast<AnnotatedFunction *>(object); }

    static PyObject *call(PyObject *self, PyObject *const *values, std::size_t count, PyObject *keywords) noexcept {
        return PyObject_Vectorcall(of(self).function, values, count, keywords);
    }

    // Static: bound to nothing.
    static PyObject *get(PyObject *self, PyObject *, PyObject *) noexcept { return Py_NewRef(self); }

    static PyObject *represent(PyObject *self) noexcept { return PyObject_Repr(of(self).function); }

    // What it has no attribute for, the function has.
    static PyObject *getAttribute(PyObject *self, PyObject *name) noexcept {
        PyObject *found = PyObject_GenericGetAttr(self, name);
        if (found == nullptr && PyErr_ExceptionMatches(PyExc_AttributeError) != 0) {
            PyErr_Clear();
            found = PyObject_GetAttr(of(self).function, name);
        }
        return found;
    }

    static PyObject *doc(PyObject *self, void *) noexcept {
        return PyObject_GetAttrString(of(self).function, "__doc__");
    }
    static PyObject *annotations(PyObject *self, void *) noexcept {
        return PyObject_GetAttrString(of(self).wrapped, "__annotations__");
    }

    static int traverse(PyObject *self, visitproc visit, void *arg) noexcept {
        Py_VISIT(Py_TYPE(self));
        Py_VISIT(of(self).function);
        Py_VISIT(of(self).wrapped);
        return 0;
    }

    static int clear(PyObject *self) noexcept {
        Ref::steal(std::exchange(of(self).function, nullptr));
        Ref::steal(std::exchange(of(self).wrapped, nullptr));
        return 0;
    }

    static void deallocate(PyObject *self) noexcept {
        PyObject_GC_UnTrack(self);
        clear(self);
        PyTypeObject *type = Py_TYPE(self);
        type->tp_free(self);
        Ref::steal(reinterpret_cast<PyObject *>(type));
    }
};

PyMemberDef members[] = {
    {"__vectorcalloffset__", T_PYSSIZET, offsetof(AnnotatedFunction, vectorcall), READONLY, nullptr},
    {"__wrapped__", T_OBJECT_EX, offsetof(AnnotatedFunction, wrapped), READONLY, nullptr},
    {nullptr, 0, 0, 0, nullptr},
};

PyGetSetDef attributes[] = {
    {"__doc__", AnnotatedFunction::doc, nullptr, nullptr, nullptr},
    {"__annotations__", AnnotatedFunction::annotations, nullptr, nullptr, nullptr},
    {nullptr, nullptr, nullptr, nullptr, nullptr},
};

// A function of the signature that does nothing; annotations stay the texts that they are.
Ref newSignatureFunction(const Method &method) {
    const std::string source = std::string("from __future__ import annotations\ndef ") + method.name +
                               std::string(method.signature.text()) + ": pass\n";
    Ref names = checked(PyDict_New());
    checked(PyRun_String(source.c_str(), Py_file_input, names.get(), names.get()));
    return Ref::borrow(PyDict_GetItemString(names.get(), method.name));
}

Ref newType() {
    PyType_Slot slots[] = {slot(Py_tp_call, PyVectorcall_Call), slot(Py_tp_descr_get, AnnotatedFunction::get),
        slot(Py_tp_repr, AnnotatedFunction::represent), slot(Py_tp_getattro, AnnotatedFunction::getAttribute),
        slot(Py_tp_traverse, AnnotatedFunction::traverse), slot(Py_tp_clear, AnnotatedFunction::clear),
        slot(Py_tp_dealloc, AnnotatedFunction::deallocate), {Py_tp_members, members}, {Py_tp_getset, attributes},
        {0, nullptr}};
    PyType_Spec spec = {
        .name = "sonetrix.function",
        .basicsize = sizeof(AnnotatedFunction),
        .itemsize = 0,
        .flags =
            Py_TPFLAGS_DEFAULT | Py_TPFLAGS_HAVE_GC | Py_TPFLAGS_HAVE_VECTORCALL | Py_TPFLAGS_DISALLOW_INSTANTIATION,
        .slots = slots,
    };
    return checked(PyType_FromSpec(&spec));
}

} // namespace

Ref annotated(Ref function, const Method &method) {
    const Ref type = newType(); // one for each: there are three
    Ref object = checked(asType(type)->tp_alloc(asType(type), 0));
    AnnotatedFunction &created = AnnotatedFunction::of(object.get());
    created.vectorcall = AnnotatedFunction::call;
    created.function = function.release();
    created.wrapped = newSignatureFunction(method).release();
    return object;
}

} // namespace sonetrix
