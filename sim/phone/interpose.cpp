#include "interpose.h"

namespace velmar_phone {

PhonePath::PhonePath(const char* path, LastLink last) : given_(path) {
    PathText phone_path;
    if (!FindPhonePath(path, &phone_path)) return;
    phone_ = CurrentPhone();
    if (phone_ == nullptr) return;
    const int saved_errno = errno;
    error_ = ResolveBelow(phone_->root.View(), phone_path.View(), last, &resolved_);
    errno = saved_errno;
}

bool Fails(const char* call, const PhonePath& at, const PhonePath* other) {
    const bool is_only_other = at.phone() == nullptr && other != nullptr;
    const Phone* phone = is_only_other ? other->phone() : at.phone();
    if (phone == nullptr) return false;
    int error = at.error();
    if (error == 0 && other != nullptr) error = other->error();
    if (error == 0) {
        FaultHit hit;
        const char* second = other == nullptr ? nullptr : other->given();
        if (!TakeFault(*phone, call, at.given(), second, &hit)) return false;
        error = hit.error != 0 ? hit.error : EIO;
    }
    errno = error;
    return true;
}

void RefusePhonePath(const char* call, const char* path) {
    PathText ignored;
    if (!FindPhonePath(path, &ignored) || CurrentPhone() == nullptr) return;
    Die({call, "(\"", path, "\") is not redirected"});
}

}  // namespace velmar_phone
