// engine: the processing graph as a Graphviz file.

#include "engine.h"
#include "python/gil.h"

#include <algorithm>
#include <string>
#include <string_view>

namespace sonetrix {

namespace {

// ------------------------------------------------------------------------------------------------------- templates

constexpr const char *fileHeader =
    "digraph pipeline {\n"
    "  layout=\"dot\";\n"
    "  charset=\"UTF-8\";\n"
    "  rankdir=\"LR\";\n"
    "  fontname=\"DejaVu Sans\";\n"
    "  fontsize=\"10\";\n"
    "  labelloc=\"t\";\n"
    "  sep=.2;\n"
    "  esep=.1;\n"
    "  ranksep=.2;\n"
    "  nodesep=0.2;\n"
    "  splines=line;   // line, spline, polyline  (curved is slow, ortho is bugged)\n"
    "  compound=true;\n"
    "  node [style=\"filled,rounded\", shape=box, fontsize=\"9\", fontname=\"DejaVu Sans\", margin=\"0.0,0.0\"];\n"
    "  edge [labelfontsize=\"6\", fontsize=\"9\", fontname=\"monospace\"];\n";
constexpr const char *clusterHeader = // module name, label, colour
    "subgraph cluster_m_%s {\n"
    "  fontsize=\"8\";\n"
    "  style=\"filled,rounded\";\n"
    "  color=black;\n"
    "  label=\"%S\";\n"
    "  fillcolor=\"%s\";\n";
constexpr const char *nodeHeader = // module name, colour
    "m_%s [\n"
    "  shape=plain,\n"
    "  fillcolor=\"%s\",\n"
    "  label=<\n"
    "        <TABLE BORDER=\"0\" CELLBORDER=\"0\" CELLSPACING=\"8\" ALIGN=\"left\">";
constexpr const char *rowStart = "<TR>";
constexpr const char *sinkCell = "<TD BGCOLOR=\"#aaaaff\" CELLPADDING=\"5\" PORT=\"sink_%zd\">%S</TD>";
constexpr const char *sourceCell = "<TD BGCOLOR=\"#ffaaaa\" CELLPADDING=\"5\" PORT=\"src_%zd\">%S</TD>";
constexpr const char *rowEnd = "</TR>";
constexpr const char *nodeFooter = "</TABLE> >];";
constexpr const char *footer = "}";
// Both ends of an edge: module, its node's suffix, port.
constexpr const char *layoutEdge = "m_%zd_%s:src_%zd -> m_%zd_%s:sink_%zd [style=\"invis\", splines=none];";
constexpr const char *linkEdge = "m_%zd_%s:src_%zd -> m_%zd_%s:sink_%zd [style=\"filled\", arrowtail=\"normal\"];";

constexpr const char *moduleColour = "#aaffaa";
constexpr const char *driverColour = "#aaffff";

// --------------------------------------------------------------------------------------------------------- writing

// with open(filename, "w") as file: body(file)
template <class Body> void withOpenFile(PyObject *filename, Body &&body) {
    Ref manager = call(moduleGlobal("open"_id).get(), filename, "w"_id.get());
    const auto exit = [&manager](PyObject *type, PyObject *exception, PyObject *traceback) {
        return callMethod(manager.get(), "__exit__"_id, type, exception, traceback);
    };
    Ref file = callMethod(manager.get(), "__enter__"_id);
    try {
        body(file.get());
    } catch (...) {
        translateException();
        Ref raised = Ref::steal(PyErr_GetRaisedException());
        Ref traceback = Ref::steal(PyException_GetTraceback(raised.get()));
        const HandledException handled(raised.get());
        Ref swallowed = exit(
            reinterpret_cast<PyObject *>(Py_TYPE(raised.get())), raised.get(), traceback ? traceback.get() : Py_None);
        if (checked(PyObject_IsTrue, swallowed.get()) == 0) {
            PyErr_SetRaisedException(raised.release());
            throw PythonError();
        }
        return;
    }
    exit(Py_None, Py_None, Py_None);
}

Ref writeLinesWithHeader(Arguments arguments) {
    PyObject *file = arguments[0];
    PyObject *lines = arguments[1];
    PyObject *lineHeaderCount = arguments[2];
    requireStr("lines", lines);
    if (!PyLong_CheckExact(lineHeaderCount)) {
        raiseArgumentType("lineHeaderCount", "int", lineHeaderCount);
    }
    Ref header = checked(PyNumber_Multiply, "  "_id.get(), lineHeaderCount);
    forEach(checked(PyUnicode_Split(lines, "\n"_id.get(), -1)).get(), [&](PyObject *piece) {
        callMethod(file, "write"_id, checked(PyUnicode_FromFormat("%U%U\n", header.get(), piece)).get());
    });
    return none();
}

// One run of dot(): the file, how deep it is indented, and which ports have been written.
class GraphWriter {
public:
    explicit GraphWriter(PyObject *file) : file_(file), ports_(checked(PyDict_New())) {}

    void write(const Ref &infos) {
        line(fileHeader);
        ++depth_;
        const Py_ssize_t count = size(infos);
        for (Py_ssize_t index = 0; index < count; ++index) {
            writeModule(at(infos, index).get(), index);
        }
        for (Py_ssize_t index = 0; index < count; ++index) {
            writeLinks(infos, at(infos, index).get(), index);
        }
        --depth_;
        line(footer);
    }

private:
    // A port in the file: its number, and its module's.
    struct Port {
        Py_ssize_t id;
        Py_ssize_t module;
    };

    template <class... Values> void line(const char *format, Values... values) {
        Ref text = checked(PyUnicode_FromFormat, format, values...);
        Ref depth = checked(PyLong_FromSsize_t(depth_));
        callEngine("_writeLinesWithHeader"_id, file_, text.get(), depth.get());
    }

    static Ref at(const Ref &sequence, Py_ssize_t index) { return checked(PySequence_GetItem, sequence.get(), index); }
    static Py_ssize_t size(const Ref &sequence) { return sequence ? checked(PySequence_Size, sequence.get()) : 0; }
    static bool has(PyObject *dict, const InternedString &key) {
        return checked(PySequence_Contains, dict, key.get()) != 0;
    }
    static Ref decoded(const Ref &bytes) { return callMethod(bytes.get(), "decode"_id, "utf-8"_id.get()); }

    static bool isDriver(PyObject *info) {
        Ref driverType = checked(PyLong_FromLong(0));
        return checked(PyObject_RichCompareBool, item(info, "type"_id).get(), driverType.get(), Py_EQ) != 0;
    }
    // The suffix of the node with a module's sources, or sinks, which a driver has apart.
    static const char *suffix(PyObject *info, const char *ofDriver) { return isDriver(info) ? ofDriver : "src_sink"; }

    static Ref shortened(const Ref &text) {
        const Py_ssize_t length = PyUnicode_GET_LENGTH(text.get());
        if (length < 17) {
            return text;
        }
        Ref head = checked(PyUnicode_Substring(text.get(), 0, 10));
        Ref tail = checked(PyUnicode_Substring(text.get(), length - 1, length));
        return checked(PyUnicode_FromFormat("%U ... %U", head.get(), tail.get()));
    }

    static Ref moduleLabel(PyObject *info) {
        Ref label = decoded(item(info, "name"_id));
        if (has(info, "library"_id)) {
            Ref path = attribute(checked(PyImport_ImportModule, "os").get(), "path"_id);
            Ref base = callMethod(path.get(), "basename"_id, decoded(item(info, "library"_id)).get());
            label = checked(PyUnicode_FromFormat, "%S\n(%S)", label.get(), base.get());
        }
        if (has(info, "configuration"_id)) {
            Ref text = shortened(checked(PyObject_Str, item(info, "configuration"_id).get()));
            label = checked(PyUnicode_FromFormat, "%S\n%U", label.get(), text.get());
        }
        return label;
    }

    void writeModule(PyObject *info, Py_ssize_t index) {
        const Ref label = moduleLabel(info);
        if (isDriver(info)) {
            writeCluster(info, index, "src", label, driverColour);
            writeCluster(info, index, "sink", label, driverColour);
        } else {
            writeCluster(info, index, "src_sink", label, moduleColour);
        }
        writeLayoutEdge(info, index);
    }

    // `shown`: "src", "sink" or both.
    void writeCluster(PyObject *info, Py_ssize_t index, std::string_view shown, const Ref &label, const char *colour) {
        const std::string name = std::to_string(index) + "_" + std::string(shown);
        line(clusterHeader, name.c_str(), label.get(), colour);
        ++depth_;
        line(nodeHeader, name.c_str(), colour);
        ++depth_;
        const Ref sinks = shown.ends_with("sink") ? item(info, "sink"_id) : Ref();
        const Ref sources = shown.starts_with("src") ? item(info, "src"_id) : Ref();
        const Py_ssize_t sinkCount = size(sinks);
        const Py_ssize_t sourceCount = size(sources);
        for (Py_ssize_t row = 0; row < std::max(sinkCount, sourceCount); ++row) {
            line(rowStart);
            ++depth_;
            if (row < sinkCount) {
                writeCell(sinkCell, sinks, row, index);
            }
            if (row < sourceCount) {
                writeCell(sourceCell, sources, row, index);
            }
            --depth_;
            line(rowEnd);
        }
        --depth_;
        line(nodeFooter);
        --depth_;
        line(footer);
    }

    void writeCell(const char *format, const Ref &ports, Py_ssize_t row, Py_ssize_t module) {
        const Ref name = item(at(ports, row).get(), "name"_id);
        const Py_ssize_t id = PyDict_GET_SIZE(ports_.get());
        checked(PyDict_SetItem, ports_.get(), name.get(), checked(Py_BuildValue("(nn)", id, module)).get());
        line(format, port(name).id, decoded(name).get());
    }

    Port port(const Ref &name) const {
        const Ref record = checked(PyObject_GetItem, ports_.get(), name.get());
        return {
            PyLong_AsSsize_t(PyTuple_GET_ITEM(record.get(), 0)), PyLong_AsSsize_t(PyTuple_GET_ITEM(record.get(), 1))};
    }

    // An invisible edge from a module's sources to its sinks, which steers the layout.
    void writeLayoutEdge(PyObject *info, Py_ssize_t index) {
        const Ref sources = item(info, "src"_id);
        const Ref sinks = item(info, "sink"_id);
        if (size(sources) != 0 && size(sinks) != 0) {
            const Port from = port(item(at(sources, 0).get(), "name"_id));
            const Port to = port(item(at(sinks, 0).get(), "name"_id));
            line(layoutEdge, index, suffix(info, "src"), from.id, index, suffix(info, "sink"), to.id);
        }
    }

    void writeLinks(const Ref &infos, PyObject *info, Py_ssize_t index) {
        const Ref sinks = item(info, "sink"_id);
        for (Py_ssize_t row = 0; row < size(sinks); ++row) {
            const Ref sink = at(sinks, row);
            if (!has(sink.get(), "link"_id)) {
                continue;
            }
            const Port to = port(item(sink.get(), "name"_id));
            const Port from = port(item(sink.get(), "link"_id));
            const Ref feeding = at(infos, from.module);
            line(linkEdge, from.module, suffix(feeding.get(), "src"), from.id, index, suffix(info, "sink"), to.id);
        }
    }

    PyObject *file_;
    Ref ports_; // port name -> (number, module's number)
    Py_ssize_t depth_ = 0;
};

Ref dot(Arguments arguments) {
    PyObject *filename = arguments[0];
    requireStr("filename", filename);
    if (checked(PyObject_IsTrue, callEngine("hasDriver"_id).get()) == 0) {
        raisePlain("dot is supported only if a driver is loaded");
    }
    const Ref infos = callEngine("getModuleInfos"_id);
    withOpenFile(filename, [&infos](PyObject *file) { GraphWriter(file).write(infos); });
    return none();
}

constexpr Method functions[] = {
    {"dot", "(filename: str)",
        "Writes the processing graph as a Graphviz file.\n\n"
        "- filename: the file's path; an existing file is overwritten\n"
        "Modules become clusters whose cells are the ports, links become edges. Exception when no driver is loaded;\n"
        "errors of opening and writing the file come through.",
        function<dot>},
    {"_writeLinesWithHeader", "(f, lines: str, lineHeaderCount: int)",
        "Writes each line of a text, indented by two blanks for each level.\n\n"
        "- f: an object with a write method\n"
        "- lines: the text\n"
        "- lineHeaderCount: the level",
        function<writeLinesWithHeader>},
};

} // namespace

const std::span<const Method> engineGraphFunctions = functions;

} // namespace sonetrix
