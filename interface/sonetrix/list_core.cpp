#include "list_core.h"

namespace sonetrix {

namespace {

constexpr std::size_t largestSpare = std::size_t{1} << 15; // items

} // namespace

ListReading::~ListReading() {
    ListReading **link = &innermost_;
    while (*link != this) {
        link = &(*link)->outer_; // of another thread, which has begun later and is not done
    }
    *link = outer_;
    items_.clear();
    if (items_.capacity() > spare_.capacity() && items_.capacity() <= largestSpare) {
        spare_.swap(items_);
    }
}

Ref ListReading::takeList() {
    Ref list = checked(PyList_New(static_cast<Py_ssize_t>(items_.size())));
    for (std::size_t index = 0; index < items_.size(); ++index) {
        PyList_SET_ITEM(list.get(), static_cast<Py_ssize_t>(index), items_[index].release());
    }
    return list;
}

Ref ListReading::takeDict() {
    Ref dict = checked(version::newDict(static_cast<Py_ssize_t>(items_.size() / 2)).release());
    for (std::size_t index = 0; index + 1 < items_.size(); index += 2) {
        checked(PyDict_SetItem(dict.get(), items_[index].get(), items_[index + 1].get()));
    }
    return dict;
}

} // namespace sonetrix
