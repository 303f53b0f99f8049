#include "list_core.h"

#include <algorithm>
#include <new>

namespace sonetrix {

namespace {

// The memory of the last long reading, for the next one: giving it back to the system and having it anew takes longer
// than filling it. Guarded by the interpreter lock.
NativeArray<PyObject *> spareItems;
std::size_t spareRoom = 0;
constexpr std::size_t largestSpareRoom = std::size_t{1} << 15;

} // namespace

ListReading::~ListReading() {
    current_ = outer_;
    while (taken_ < size_) {
        take();
    }
    if (moreItems_ != nullptr && room_ <= largestSpareRoom && room_ > spareRoom) {
        spareItems = std::move(moreItems_);
        spareRoom = room_;
    }
}

void ListReading::grow() {
    if (moreItems_ == nullptr && spareItems != nullptr) {
        moreItems_ = std::move(spareItems);
        room_ = std::exchange(spareRoom, 0);
        items_ = std::copy(usualItems_.begin(), usualItems_.end(), moreItems_.get()) - usualItems_.size();
        return;
    }
    const std::size_t room = 2 * room_;
    auto *items = static_cast<PyObject **>(std::realloc(moreItems_.get(), room * sizeof(PyObject *)));
    if (items == nullptr) {
        throw std::bad_alloc();
    }
    if (moreItems_ == nullptr) {
        std::copy(usualItems_.begin(), usualItems_.end(), items);
    }
    static_cast<void>(moreItems_.release());
    moreItems_.reset(items);
    items_ = items;
    room_ = room;
}

Ref ListReading::takeList() {
    if (PyList_GET_SIZE(container_.get()) == 0) {
        Ref list = checked(PyList_New(static_cast<Py_ssize_t>(size_)));
        while (taken_ < size_) {
            const auto index = static_cast<Py_ssize_t>(taken_);
            PyList_SET_ITEM(list.get(), index, take().release());
        }
        return list;
    }
    // The engine called back from elsewhere, too.
    while (taken_ < size_) {
        checked(PyList_Append(container_.get(), take().get()));
    }
    return container_;
}

Ref ListReading::takeDict() {
    const bool elsewhere = PyDict_GET_SIZE(container_.get()) != 0;
    Ref dict = elsewhere ? container_ : version::newDict(static_cast<Py_ssize_t>(size_ / 2));
    if (!dict) {
        throw PythonError();
    }
    while (taken_ < size_) {
        const Ref key = take();
        const Ref value = take();
        checked(PyDict_SetItem(dict.get(), key.get(), value.get()));
    }
    return dict;
}

} // namespace sonetrix
