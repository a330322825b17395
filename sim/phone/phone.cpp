#include "phone.h"

#include <errno.h>
#include <fcntl.h>
#include <stdlib.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <android-base/unique_fd.h>

namespace velmar_phone {
namespace {

std::atomic<Phone*> g_phones;
std::atomic<Phone*> g_last_phone;

[[noreturn]] void Die(std::string_view root, std::string_view error) {
    PathText line;
    const std::string_view parts[] = {"velmar_phone: ", kRootVariable, "=\"", root,
                                      "\": ",           error,         "\n"};
    for (const std::string_view part : parts) line.Append(part);
    if (write(STDERR_FILENO, line.text, line.length) < 0) abort();
    abort();
}

bool MapState(Phone* phone) {
    PathText path = phone->root;
    if (!path.Append(kStateFile)) return false;
    const android::base::unique_fd file(open(path.text, O_RDWR | O_CLOEXEC));
    struct stat status = {};
    if (file < 0 || fstat(file, &status) != 0 || status.st_size != sizeof(PhoneState)) return false;
    void* state = mmap(nullptr, sizeof(PhoneState), PROT_READ | PROT_WRITE, MAP_SHARED, file, 0);
    phone->state = static_cast<PhoneState*>(state);
    return state != MAP_FAILED;
}

Phone* LoadPhone(std::string_view root) {
    auto* phone = static_cast<Phone*>(AllocatePages(sizeof(Phone)));
    PathText ignored;
    const bool is_path = root.size() > 1 && root.front() == '/' && root.back() != '/';
    if (!is_path || !phone->root.Append(root)) {
        Die(root, "expected the absolute path of a folder, without a slash at its end");
    }
    if (FindPhonePath(phone->root.text, &ignored)) {
        Die(root, "expected a folder that does not lie below a path of the phone itself");
    }
    const android::base::unique_fd folder(open(phone->root.text, O_PATH | O_DIRECTORY | O_CLOEXEC));
    if (folder < 0 || !ReadLink(DescriptorName(folder.get()).text, &phone->canonical_root)) {
        Die(root, "expected a folder that can be opened");
    }
    if (!MapState(phone)) {
        Die(root, "expected a file phone_state in it, of the size that this build gives it");
    }
    phone->log = -1;
    // Two threads may load the same phone at once. Both copies work; later calls find the last one.
    phone->next = g_phones.load();
    while (!g_phones.compare_exchange_weak(phone->next, phone)) {
    }
    return phone;
}

}  // namespace

Phone* CurrentPhone() {
    // A program that changes its environment while other threads open files races anyway.
    const char* root = getenv(kRootVariable);  // NOLINT(concurrency-mt-unsafe)
    Phone* phone = root == nullptr ? nullptr : g_phones.load();
    while (phone != nullptr && phone->root.View() != root) phone = phone->next;
    if (root != nullptr && phone == nullptr) phone = LoadPhone(root);
    g_last_phone.store(phone);
    return phone;
}

Phone* LastPhone() {
    return g_last_phone.load(std::memory_order_acquire);
}

bool StripRoot(const Phone& phone, char* path) {
    const size_t length = phone.canonical_root.length;
    PathText ignored;
    if (strncmp(path, phone.canonical_root.text, length) != 0) return false;
    if (!FindPhonePath(path + length, &ignored)) return false;
    memmove(path, path + length, strlen(path + length) + 1);
    return true;
}

int Failure(int error) {
    errno = error;
    return -1;
}

void* AllocatePages(size_t size) {
    void* pages = mmap(nullptr, size, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
    if (pages == MAP_FAILED) abort();
    return pages;
}

}  // namespace velmar_phone
