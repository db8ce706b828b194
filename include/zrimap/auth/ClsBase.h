// Reference-owned helper objects of the authentication code (the NTLM
// message maker, the OAuth2 token client) and the guards that release them.
#pragma once

#include "zrimap/base/ZendrelObject.h"

namespace zr {

// createNewCls() of a derived class returns an object holding one
// reference; whoever holds that reference releases it with decRefCount().
class ClsBase : public RefCountedObject {
protected:
    ~ClsBase() override;
};

// Releases the object it holds when it goes out of scope.
class _clsBaseHolder {
public:
    _clsBaseHolder() = default;
    ~_clsBaseHolder() { release(); }
    _clsBaseHolder(const _clsBaseHolder&) = delete;
    _clsBaseHolder& operator=(const _clsBaseHolder&) = delete;

    // Takes over the caller's reference; a previously held object is released.
    void setClsBasePtr(ClsBase* obj) {
        release();
        m_obj = obj;
    }
    ClsBase* getClsBasePtr() const { return m_obj; }
    void release() {
        if (m_obj) m_obj->decRefCount();
        m_obj = nullptr;
    }

private:
    ClsBase* m_obj = nullptr;
};

// The same guard under the name the token-request path uses.
class _clsOwner : public _clsBaseHolder {};

}  // namespace zr
