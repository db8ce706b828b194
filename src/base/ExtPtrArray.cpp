#include "zrimap/base/ExtPtrArray.h"

#include <cstddef>
#include <new>

#include "zrimap/base/StringBuffer.h"

namespace zr {

ExtPtrArray::~ExtPtrArray() { removeAllObjects(); }

bool ExtPtrArray::appendPtr(ZendrelObject* obj) {
    try {
        m_items.push_back(obj);
        return true;
    } catch (const std::bad_alloc&) {
        delete obj;
        return false;
    }
}

ZendrelObject* ExtPtrArray::elementAt(int i) const {
    if (i < 0 || i >= getSize()) return nullptr;
    return m_items[static_cast<size_t>(i)];
}

ZendrelObject* ExtPtrArray::removeAt(int i) {
    if (i < 0 || i >= getSize()) return nullptr;
    ZendrelObject* obj = m_items[static_cast<size_t>(i)];
    m_items.erase(m_items.begin() + i);
    return obj;
}

void ExtPtrArray::removeAllObjects() {
    // Detach first: an element's destructor must never see a half-emptied array.
    std::vector<ZendrelObject*> items;
    items.swap(m_items);
    for (ZendrelObject* obj : items) delete obj;
}

StringBuffer* ExtPtrArraySb::sbAt(int i) const { return dynamic_cast<StringBuffer*>(elementAt(i)); }

bool ExtPtrArraySb::appendString(const char* text) {
    StringBuffer* sb = StringBuffer::createNewSB(text);
    return sb && appendPtr(sb);
}

}  // namespace zr
