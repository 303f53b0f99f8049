// usageInfo(): a live table of the modules' processing load.

#include "monitor.h"

#include <algorithm>
#include <vector>

namespace sonetrix {

namespace {

struct Row {
    Ref name;
    long processId;
    double relative;
    double absolute;
};

// engine.getUsageInfo() as rows, the busiest module first.
std::vector<Row> usageRows() {
    Ref usages = callEngine("getUsageInfo"_id);
    std::vector<Row> rows;
    forEach(checked(PyMapping_Keys, usages.get()).get(), [&](PyObject *name) {
        const Ref usage = checked(PyObject_GetItem, usages.get(), name);
        const long processId = checked(PyLong_AsLong, item(usage.get(), "processId"_id).get());
        rows.push_back({callMethod(name, "decode"_id, "utf-8"_id.get(), "replace"_id.get()), processId,
            toDouble(item(usage.get(), "relative"_id).get()), toDouble(item(usage.get(), "absolute"_id).get())});
    });
    std::stable_sort(rows.begin(), rows.end(), [](const Row &a, const Row &b) { return a.absolute > b.absolute; });
    return rows;
}

// Replaces what the last redrawing left: each line ends by wiping the rest of its row.
class Table {
public:
    explicit Table(TerminalSize size) : size_(size), text_(checked(PyUnicode_FromString(""))) {}

    // False when the terminal has no room for another line.
    bool add(const Ref &line) {
        if (size_.lines > 0 && lines_ + 1 >= size_.lines) {
            return false;
        }
        text_ = checked(PyUnicode_FromFormat("%U%U\x1b[K\n", text_.get(), cut(line, size_.columns).get()));
        ++lines_;
        return true;
    }

    // Draws the table over the previous one, of `previousLines`; gives the number of its own lines.
    Py_ssize_t draw(Py_ssize_t previousLines) const {
        Ref start = previousLines > 0 ? checked(PyUnicode_FromFormat("\x1b[%zdA\r", previousLines))
                                      : checked(PyUnicode_FromString("\r"));
        print(checked(PyUnicode_FromFormat("%U%U\x1b[J", start.get(), text_.get())).get(), "");
        return lines_;
    }

private:
    TerminalSize size_;
    Ref text_;
    Py_ssize_t lines_ = 0;
};

Ref usageInfo() {
    HiddenCursor cursor;
    Py_ssize_t drawnLines = 0;
    whileRunning([&drawnLines] {
        const std::vector<Row> rows = usageRows();
        double total = 0;
        for (const Row &row : rows) {
            total += row.absolute;
        }
        Table table(terminalSize());
        table.add(checked(PyUnicode_FromString("    pid  relative  absolute  share  module")));
        for (const Row &row : rows) {
            Ref pid = formatted(checked(PyLong_FromLong(row.processId)).get(), "7d");
            const bool drawn = table.add(checked(PyUnicode_FromFormat, "%U  %U%%  %U%%  %U%%  %S", pid.get(),
                formatted(row.relative, "7.2f").get(), formatted(row.absolute, "7.2f").get(),
                formatted(total == 0 ? 0 : row.absolute / total * 100, "4.0f").get(), row.name.get()));
            if (!drawn) {
                break;
            }
        }
        drawnLines = table.draw(drawnLines);
    });
    cursor.show();
    return none();
}

constexpr Method functions[] = {
    {"usageInfo", "()",
        "Prints a live table of the modules' processing load, as engine.getUsageInfo reads it.\n\n"
        "The busiest module comes first; the table is cut to the terminal's size and redrawn in place, ten times a\n"
        "second, until the engine stops or Ctrl-C is pressed.",
        function<usageInfo>},
};

} // namespace

void addUsageInfo(PyObject *module) { addFunctions(module, functions); }

} // namespace sonetrix
