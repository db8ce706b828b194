#include "zrimap/base/ZendrelObject.h"

namespace zr {

ZendrelObject::~ZendrelObject() = default;
RefCountedObject::~RefCountedObject() = default;

void RefCountedObject::incRefCount() { m_refCount.fetch_add(1, std::memory_order_relaxed); }

void RefCountedObject::decRefCount() {
    // A count already at zero means the creator never took a reference; the
    // release still ends the object rather than leaking it.
    if (m_refCount.fetch_sub(1, std::memory_order_acq_rel) <= 1) delete this;
}

}  // namespace zr
