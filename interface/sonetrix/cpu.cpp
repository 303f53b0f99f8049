// cpu(): a live line of the engine's processing load.

#include "monitor.h"

#include <array>

namespace sonetrix {

namespace {

constexpr double measurementAllowance = 0.00017; // seconds
constexpr double millisecond = 0.001;

// engine.cpuInfo(), unpacked into exactly six.
std::array<Ref, 6> cpuFigures() {
    std::array<Ref, 6> figures;
    if (const std::size_t count = unpack(callEngine("cpuInfo"_id).get(), figures); count < figures.size()) {
        raiseFormat(PyExc_ValueError, "need more than %zu value%.1s to unpack", count, count == 1 ? "" : "s");
    }
    return figures;
}

void keepHigher(Ref &held, const Ref &current) {
    if (checked(PyObject_RichCompareBool, current.get(), held.get(), Py_GT) != 0) {
        held = current;
    }
}

Ref cpu(Arguments arguments) {
    PyObject *hold = arguments.get(0, Py_False);
    HiddenCursor cursor;
    Ref meanHeld = checked(PyLong_FromLong(0));
    Ref peakHeld = meanHeld;
    whileRunning([&] {
        const auto [mean, peakMean, timeUsage, timeUsagePeak, maxCpuTime, maxCpuTimeErr] = cpuFigures();
        const double longest = toDouble(maxCpuTime.get());
        const double error = longest > 0 ? measurementAllowance / longest * 100 : 0;
        const bool holding = checked(PyObject_IsTrue, hold) != 0;
        if (holding) {
            keepHigher(meanHeld, mean);
            keepHigher(peakHeld, peakMean);
        }
        const auto milliseconds = [](const Ref &seconds) {
            return formatted(toDouble(seconds.get()) / millisecond, "9.4f");
        };
        Ref text = checked(PyUnicode_FromFormat("%U%% (%Ums) %U%% (%Ums) [err: %U%% maxtime: %Ums]    ",
            formatted((holding ? meanHeld : mean).get(), "5.1f").get(), milliseconds(timeUsage).get(),
            formatted((holding ? peakHeld : peakMean).get(), "5.1f").get(), milliseconds(timeUsagePeak).get(),
            formatted(error, "4.1f").get(), milliseconds(maxCpuTime).get()));
        text = cut(text, terminalColumns());
        print(checked(PyUnicode_FromFormat("\r%U", text.get())).get(), "");
    });
    cursor.show();
    return none();
}

constexpr Method functions[] = {
    {"cpu", "(hold=False)",
        "This methods make use of the \"cpuInfo\" method of the engine class to print the realtime usage\n"
        "    of CPU for processing operations.\n",
        function<cpu>},
};

} // namespace

void addCpu(PyObject *module) { addFunctions(module, functions); }

} // namespace sonetrix
