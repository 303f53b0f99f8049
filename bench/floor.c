/*
 * What the library is measured against: the same jobs as bare C extension functions, in the fastest way that is known.
 * Builtins of the vectorcall kind stand in a class's dictionary, text is used in place, the interpreter lock is given
 * up around the same engine calls, containers are made in their final size, which the caller tells. No subclasses, no
 * selectors, no keywords, no traceback entries.
 */
#define PY_SSIZE_T_CLEAN
#include <Python.h>

#include "stub_engine.h"

#include <pthread.h>

static sonetrix_engine_t *engine;

static PyObject *refuse(void) {
    PyErr_SetString(PyExc_TypeError, "wrong arguments");
    return NULL;
}

/* ------------------------------------------------------------------------------------------------- plain functions */

static PyObject *isRunning(PyObject *self, PyObject *const *arguments, Py_ssize_t count) {
    (void)self, (void)arguments;
    if (count != 0) {
        return refuse();
    }
    int32_t running;
    Py_BEGIN_ALLOW_THREADS;
    running = sonetrix_engine_IsRunning(engine);
    Py_END_ALLOW_THREADS;
    return Py_NewRef(running != 0 ? Py_True : Py_False);
}

static const char *asciiText(PyObject *text) {
    return PyUnicode_Check(text) && PyUnicode_IS_ASCII(text) ? (const char *)PyUnicode_DATA(text) : NULL;
}

static PyObject *link2(PyObject *self, PyObject *const *arguments, Py_ssize_t count) {
    (void)self;
    const char *p1 = count == 2 ? asciiText(arguments[0]) : NULL;
    const char *p2 = count == 2 ? asciiText(arguments[1]) : NULL;
    if (p1 == NULL || p2 == NULL) {
        return refuse();
    }
    int32_t status;
    Py_BEGIN_ALLOW_THREADS;
    status = sonetrix_engine_LinkPort(engine, p1, p2);
    Py_END_ALLOW_THREADS;
    return PyLong_FromLong(status);
}

/* link(p1, p2=...): what a keyword costs at least. */
static PyObject *linkKeywords(PyObject *self, PyObject *const *arguments, Py_ssize_t count, PyObject *names) {
    if (names == NULL || PyTuple_GET_SIZE(names) != 1 ||
        PyUnicode_CompareWithASCIIString(PyTuple_GET_ITEM(names, 0), "p2") != 0) {
        return refuse();
    }
    return link2(self, arguments, count + 1);
}

static PyObject *logInfo(PyObject *self, PyObject *const *arguments, Py_ssize_t count) {
    (void)self;
    const char *text = count == 1 && PyUnicode_Check(arguments[0]) ? PyUnicode_AsUTF8(arguments[0]) : NULL;
    if (text == NULL) {
        return refuse();
    }
    Py_BEGIN_ALLOW_THREADS;
    sonetrix_log_LogString(SONETRIX_LOG_INFO, "python", 0, 1, text);
    Py_END_ALLOW_THREADS;
    Py_RETURN_NONE;
}

/* The engine is called without the lock, so the callback takes it. */
static int32_t addModuleName(const sonetrix_module_t *module, void *user) {
    const PyGILState_STATE state = PyGILState_Ensure();
    PyObject *name = PyBytes_FromString(module->name);
    PyList_Append(user, name);
    Py_DECREF(name);
    PyGILState_Release(state);
    return 0;
}

static PyObject *getModuleNames(PyObject *self, PyObject *const *arguments, Py_ssize_t count) {
    (void)self, (void)arguments, (void)count;
    PyObject *list = PyList_New(0);
    Py_BEGIN_ALLOW_THREADS;
    sonetrix_engine_ForEachModuleSafe(engine, addModuleName, list);
    Py_END_ALLOW_THREADS;
    return list;
}

/* --------------------------------------------------------------------------------------------------------- reading */

static PyObject *tupleOfFloats(const float *elements, Py_ssize_t count) {
    PyObject *tuple = PyTuple_New(count);
    for (Py_ssize_t index = 0; index < count; ++index) {
        PyTuple_SET_ITEM(tuple, index, PyFloat_FromDouble((double)elements[index]));
    }
    return tuple;
}

static PyObject *tupleOfInts(const sonetrix_value_t *value, int isSigned) {
    const int32_t *elements = value->as.array;
    PyObject *tuple = PyTuple_New((Py_ssize_t)value->count);
    for (Py_ssize_t index = 0; index < (Py_ssize_t)value->count; ++index) {
        const long number = isSigned ? elements[index] : (long)(uint32_t)elements[index];
        PyTuple_SET_ITEM(tuple, index, PyLong_FromLong(number));
    }
    return tuple;
}

static inline PyObject *toPython(const sonetrix_value_t *value) {
    switch (value->type) {
    case SONETRIX_VALUE_UINT32:
        return PyLong_FromUnsignedLong(value->as.uint32);
    case SONETRIX_VALUE_INT32:
        return PyLong_FromLong(value->as.int32);
    case SONETRIX_VALUE_FLOAT:
        return PyFloat_FromDouble((double)value->as.float32);
    case SONETRIX_VALUE_STRING:
        return PyBytes_FromString(value->as.string);
    case SONETRIX_VALUE_AUINT32:
        return tupleOfInts(value, 0);
    case SONETRIX_VALUE_AINT32:
        return tupleOfInts(value, 1);
    case SONETRIX_VALUE_AFLOAT:
        return tupleOfFloats(value->as.array, (Py_ssize_t)value->count);
    default:
        return PyFloat_FromDouble(value->as.float64);
    }
}

static int32_t addEntry(const sonetrix_keyValue_t *entry, void *user) {
    PyObject *key = PyBytes_FromString(entry->key);
    PyObject *value = toPython(&entry->value);
    PyDict_SetItem(user, key, value);
    Py_DECREF(key);
    Py_DECREF(value);
    return 0;
}

static int32_t addTypedEntry(const sonetrix_keyValue_t *entry, void *user) {
    static const char *const names[] = {"uint32", "int32", "float", "string", "auint32", "aint32", "afloat", "double"};
    static PyObject *interned[sizeof names / sizeof *names];
    PyObject **name = &interned[entry->value.type];
    if (*name == NULL) {
        *name = PyUnicode_InternFromString(names[entry->value.type]);
    }
    PyObject *key = PyBytes_FromString(entry->key);
    PyObject *pair = PyTuple_New(2);
    PyTuple_SET_ITEM(pair, 0, toPython(&entry->value));
    PyTuple_SET_ITEM(pair, 1, Py_NewRef(*name));
    PyDict_SetItem(user, key, pair);
    Py_DECREF(key);
    Py_DECREF(pair);
    return 0;
}

static PyObject *newestToDictType(PyObject *self, PyObject *size) {
    (void)self;
    PyObject *dict = _PyDict_NewPresized(PyLong_AsSsize_t(size));
    sonetrix_keyValueListForEach(stub_newestKeyValueList, addTypedEntry, dict);
    return dict;
}

static PyObject *readDict(sonetrix_cListKeyValue_t *list, Py_ssize_t size) {
    PyObject *dict = _PyDict_NewPresized(size);
    sonetrix_keyValueListForEach(list, addEntry, dict);
    return dict;
}

/* Keys that were there the last time, by position: a list that recurs finds all of its keys, hashes included. */
enum { cachedKeys = 16 };
static PyObject *keys[cachedKeys];
typedef struct Reading {
    PyObject *dict;
    size_t position;
} Reading;

static int32_t addEntryOfKnownKey(const sonetrix_keyValue_t *entry, void *user) {
    Reading *reading = user;
    PyObject **key = &keys[reading->position++ % cachedKeys];
    if (*key == NULL || strcmp(PyBytes_AS_STRING(*key), entry->key) != 0) {
        Py_XSETREF(*key, PyBytes_FromString(entry->key));
    }
    PyObject *value = toPython(&entry->value);
    PyDict_SetItem(reading->dict, *key, value);
    Py_DECREF(value);
    return 0;
}

static PyObject *readDictOfKnownKeys(sonetrix_cListKeyValue_t *list, Py_ssize_t size) {
    Reading reading = {_PyDict_NewPresized(size), 0};
    sonetrix_keyValueListForEach(list, addEntryOfKnownKey, &reading);
    return reading.dict;
}

typedef struct Filling {
    PyObject *list;
    Py_ssize_t next;
} Filling;

static int32_t addElement(const sonetrix_value_t *value, void *user) {
    Filling *filling = user;
    PyList_SET_ITEM(filling->list, filling->next++, toPython(value));
    return 0;
}

/* The same, asking first whether the thread holds the interpreter lock: an engine may call from anywhere. */
static int32_t addElementAsking(const sonetrix_value_t *value, void *user) {
    return _PyThreadState_UncheckedGet() == NULL ? -1 : addElement(value, user);
}

/* These read the list that the stub engine made last; the argument is its length. */
static PyObject *newestToDict(PyObject *self, PyObject *size) {
    (void)self;
    return readDict(stub_newestKeyValueList, PyLong_AsSsize_t(size));
}

static PyObject *newestToDictOfKnownKeys(PyObject *self, PyObject *size) {
    (void)self;
    return readDictOfKnownKeys(stub_newestKeyValueList, PyLong_AsSsize_t(size));
}

static PyObject *newestToList(PyObject *self, PyObject *size) {
    (void)self;
    Filling filling = {PyList_New(PyLong_AsSsize_t(size)), 0};
    sonetrix_valueListForEach(stub_newestValueList, addElement, &filling);
    return filling.list;
}

static PyObject *newestToListAsking(PyObject *self, PyObject *size) {
    (void)self;
    Filling filling = {PyList_New(PyLong_AsSsize_t(size)), 0};
    sonetrix_valueListForEach(stub_newestValueList, addElementAsking, &filling);
    return filling.list;
}

/* --------------------------------------------------------------------------------------------------------- writing */

typedef struct KeyValueList {
    PyObject_HEAD sonetrix_cListKeyValue_t *list;
} KeyValueList;

typedef struct ValueList {
    PyObject_HEAD sonetrix_cListValue_t *list;
} ValueList;

static PyObject *newKeyValueList(PyTypeObject *type, PyObject *arguments, PyObject *keywords) {
    (void)arguments, (void)keywords;
    KeyValueList *self = (KeyValueList *)type->tp_alloc(type, 0);
    self->list = sonetrix_keyValueListNew();
    return (PyObject *)self;
}

static PyObject *newValueList(PyTypeObject *type, PyObject *arguments, PyObject *keywords) {
    (void)arguments, (void)keywords;
    ValueList *self = (ValueList *)type->tp_alloc(type, 0);
    self->list = sonetrix_valueListNew();
    return (PyObject *)self;
}

static void deleteObject(PyObject *self) {
    PyTypeObject *type = Py_TYPE(self);
    type->tp_free(self);
    Py_DECREF(type);
}

static void deleteKeyValueList(PyObject *self) {
    sonetrix_keyValueListDestroy(((KeyValueList *)self)->list);
    deleteObject(self);
}

static void deleteValueList(PyObject *self) {
    sonetrix_valueListDestroy(((ValueList *)self)->list);
    deleteObject(self);
}

static PyObject *appendEntry(PyObject *self, PyObject *const *arguments, Py_ssize_t count) {
    const char *key = count == 2 ? asciiText(arguments[0]) : NULL;
    if (key == NULL) {
        return refuse();
    }
    sonetrix_cListKeyValue_t *list = ((KeyValueList *)self)->list;
    PyObject *value = arguments[1];
    if (PyUnicode_Check(value)) {
        const char *text = PyUnicode_AsUTF8(value);
        if (text == NULL) {
            return NULL;
        }
        sonetrix_keyValueListAddSS(list, key, text);
    } else if (PyLong_Check(value)) {
        int overflow;
        const long number = PyLong_AsLongAndOverflow(value, &overflow);
        if (overflow != 0 || number != (int32_t)number) {
            return refuse();
        }
        sonetrix_keyValueListAddSI32(list, key, (int32_t)number);
    } else {
        return refuse();
    }
    return Py_NewRef(self);
}

static PyObject *appendFloats(PyObject *self, PyObject *const *arguments, Py_ssize_t count) {
    if (count != 1 || !PyTuple_CheckExact(arguments[0])) {
        return refuse();
    }
    const Py_ssize_t size = PyTuple_GET_SIZE(arguments[0]);
    float *elements = malloc((size_t)size * sizeof *elements);
    for (Py_ssize_t index = 0; index < size; ++index) {
        PyObject *element = PyTuple_GET_ITEM(arguments[0], index);
        if (!PyFloat_Check(element)) {
            free(elements);
            return refuse();
        }
        elements[index] = (float)PyFloat_AS_DOUBLE(element);
    }
    sonetrix_valueListAddAfloat(((ValueList *)self)->list, elements, (size_t)size);
    free(elements);
    return Py_NewRef(self);
}

/* ------------------------------------------------------------------------------------------------------ parameters */

static PyTypeObject *keyValueListType;

static PyObject *wrap(sonetrix_cListKeyValue_t *list) {
    PyObject *object = keyValueListType->tp_alloc(keyValueListType, 0);
    ((KeyValueList *)object)->list = list;
    return object;
}

/* Of a key, or of a tuple of keys. */
static PyObject *getParam(PyObject *self, PyObject *const *arguments, Py_ssize_t count) {
    (void)self, (void)count;
    const int isTuple = PyTuple_Check(arguments[0]);
    const Py_ssize_t size = isTuple ? PyTuple_GET_SIZE(arguments[0]) : 1;
    sonetrix_cListValue_t *keyList = sonetrix_valueListNew();
    for (Py_ssize_t index = 0; index < size; ++index) {
        sonetrix_valueListAddS(keyList, asciiText(isTuple ? PyTuple_GET_ITEM(arguments[0], index) : arguments[0]));
    }
    sonetrix_cListKeyValue_t *list;
    Py_BEGIN_ALLOW_THREADS;
    list = sonetrix_engine_GetParams(engine, keyList);
    Py_END_ALLOW_THREADS;
    sonetrix_valueListDestroy(keyList);
    return wrap(list);
}

static PyObject *setParams(PyObject *self, PyObject *const *arguments, Py_ssize_t count) {
    (void)self;
    if (count != 1 || !Py_IS_TYPE(arguments[0], keyValueListType)) {
        return refuse();
    }
    sonetrix_cListKeyValue_t *written = sonetrix_keyValueListNew();
    Py_BEGIN_ALLOW_THREADS;
    sonetrix_engine_SetParamsFull(engine, ((KeyValueList *)arguments[0])->list, written);
    Py_END_ALLOW_THREADS;
    return wrap(written);
}

/* --------------------------------------------------------------------------------------------------- notifications */

static void callWithDict(sonetrix_cListKeyValue_t *list, PyObject *callable) {
    enum { usualSize = 10 };
    PyObject *dict = readDict(list, usualSize);
    PyObject *result = PyObject_CallOneArg(callable, dict);
    if (result == NULL) {
        PyErr_Clear();
    }
    Py_XDECREF(result);
    Py_DECREF(dict);
}

/* A thread state for every call, as PyGILState_Ensure makes it on a thread that has none. */
static void notifyWithNewState(sonetrix_cListKeyValue_t *list, void *user) {
    const PyGILState_STATE state = PyGILState_Ensure();
    callWithDict(list, user);
    PyGILState_Release(state);
}

/* A thread state for the thread's life. */
static PyInterpreterState *interpreter;
static pthread_key_t stateKey;
static __thread PyThreadState *keptState;

static void deleteKeptState(void *state) {
    PyEval_RestoreThread(state);
    PyThreadState_Clear(state);
    PyThreadState_DeleteCurrent();
}

static void enterWithKeptState(void) {
    if (keptState == NULL) {
        keptState = PyThreadState_New(interpreter);
        pthread_setspecific(stateKey, keptState);
    }
    PyEval_RestoreThread(keptState);
}

static void notifyWithKeptState(sonetrix_cListKeyValue_t *list, void *user) {
    enterWithKeptState();
    callWithDict(list, user);
    PyEval_SaveThread();
}

static void timerWithKeptState(void *callable) {
    enterWithKeptState();
    Py_XDECREF(PyObject_CallNoArgs(callable));
    PyEval_SaveThread();
}

/* A registration for as long as the object lives. */
typedef struct Held {
    PyObject_HEAD PyObject *callable;
    void *handle;
} Held;

static PyObject *newHeld(PyTypeObject *type, PyObject *arguments, PyObject *keywords) {
    (void)keywords;
    Held *self = (Held *)type->tp_alloc(type, 0);
    self->callable = Py_NewRef(PyTuple_GET_ITEM(arguments, 0));
    Py_BEGIN_ALLOW_THREADS;
    self->handle = sonetrix_engine_notify_changes_addCallback(engine, notifyWithKeptState, self->callable);
    Py_END_ALLOW_THREADS;
    return (PyObject *)self;
}

static void deleteHeld(PyObject *object) {
    Held *self = (Held *)object;
    Py_BEGIN_ALLOW_THREADS;
    sonetrix_engine_notify_changes_rmCallback(engine, self->handle);
    Py_END_ALLOW_THREADS;
    Py_DECREF(self->callable);
    deleteObject(object);
}

/* These registrations last for the process's life. */
static PyObject *addTimer(PyObject *self, PyObject *callable) {
    (void)self;
    sonetrix_engine_addTimer(engine, 0, timerWithKeptState, Py_NewRef(callable));
    Py_RETURN_NONE;
}

static PyObject *notifyNew(PyObject *self, PyObject *callable) {
    (void)self;
    sonetrix_engine_notify_changes_addCallback(engine, notifyWithNewState, Py_NewRef(callable));
    Py_RETURN_NONE;
}

static PyObject *notifyKept(PyObject *self, PyObject *callable) {
    (void)self;
    sonetrix_engine_notify_changes_addCallback(engine, notifyWithKeptState, Py_NewRef(callable));
    Py_RETURN_NONE;
}

/* ---------------------------------------------------------------------------------------------------------- module */

#define VECTORCALL(name, function)                                                                                     \
    { name, (PyCFunction)(void (*)(void))(function), METH_FASTCALL, NULL }

static PyMethodDef engineFunctions[] = {
    VECTORCALL("isRunning", isRunning),
    VECTORCALL("link", link2),
    {"linkKeywords", (PyCFunction)(void (*)(void))linkKeywords, METH_FASTCALL | METH_KEYWORDS, NULL},
    VECTORCALL("getParam", getParam),
    VECTORCALL("setParams", setParams),
    VECTORCALL("getModuleNames", getModuleNames),
    {NULL, NULL, 0, NULL},
};
static PyMethodDef logFunctions[] = {VECTORCALL("info", logInfo), {NULL, NULL, 0, NULL}};
static PyMethodDef keyValueListMethods[] = {VECTORCALL("append", appendEntry), {NULL, NULL, 0, NULL}};
static PyMethodDef valueListMethods[] = {VECTORCALL("append", appendFloats), {NULL, NULL, 0, NULL}};

static PyMethodDef moduleFunctions[] = {
    {"newestToDict", newestToDict, METH_O, NULL},
    {"newestToDictOfKnownKeys", newestToDictOfKnownKeys, METH_O, NULL},
    {"newestToDictType", newestToDictType, METH_O, NULL},
    {"newestToList", newestToList, METH_O, NULL},
    {"newestToListAsking", newestToListAsking, METH_O, NULL},
    {"notifyNew", notifyNew, METH_O, NULL},
    {"notifyKept", notifyKept, METH_O, NULL},
    {"addTimer", addTimer, METH_O, NULL},
    {NULL, NULL, 0, NULL},
};

static PyType_Slot noSlots[] = {{0, NULL}};
static PyType_Slot keyValueListSlots[] = {
    {Py_tp_new, newKeyValueList},
    {Py_tp_dealloc, deleteKeyValueList},
    {Py_tp_methods, keyValueListMethods},
    {0, NULL},
};
static PyType_Slot valueListSlots[] = {
    {Py_tp_new, newValueList},
    {Py_tp_dealloc, deleteValueList},
    {Py_tp_methods, valueListMethods},
    {0, NULL},
};

static PyType_Slot heldSlots[] = {{Py_tp_new, newHeld}, {Py_tp_dealloc, deleteHeld}, {0, NULL}};

static PyObject *addClass(PyObject *module, const char *name, int size, PyType_Slot *slots) {
    PyType_Spec spec = {.name = name, .basicsize = size, .flags = Py_TPFLAGS_DEFAULT, .slots = slots};
    PyObject *type = PyType_FromSpec(&spec);
    PyModule_AddType(module, (PyTypeObject *)type);
    return type;
}

/* The builtins themselves in the dictionary: a look-up gives them as they are. */
static void addBuiltins(PyObject *type, PyMethodDef *functions) {
    for (PyMethodDef *function = functions; function->ml_name != NULL; ++function) {
        PyObject *builtin = PyCFunction_New(function, NULL);
        PyObject_SetAttrString(type, function->ml_name, builtin);
        Py_DECREF(builtin);
    }
}

PyMODINIT_FUNC PyInit_floor(void) {
    static PyModuleDef definition = {PyModuleDef_HEAD_INIT, .m_name = "floor", .m_methods = moduleFunctions};
    PyObject *module = PyModule_Create(&definition);
    engine = sonetrix_engineGet();
    interpreter = PyInterpreterState_Get();
    pthread_key_create(&stateKey, deleteKeptState);
    addBuiltins(addClass(module, "floor.engine", sizeof(PyObject), noSlots), engineFunctions);
    addBuiltins(addClass(module, "floor.log", sizeof(PyObject), noSlots), logFunctions);
    keyValueListType = (PyTypeObject *)addClass(module, "floor.listKeyValue", sizeof(KeyValueList), keyValueListSlots);
    addClass(module, "floor.registration", sizeof(Held), heldSlots);
    addClass(module, "floor.listValue", sizeof(ValueList), valueListSlots);
    return module;
}
