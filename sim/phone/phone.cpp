#include "phone.h"

#include <android/log.h>
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

const char* RootVariable() {
    // Reads only; a program that changes its environment while other threads open files races
    // anyway.
    return getenv(kRootVariable);  // NOLINT(concurrency-mt-unsafe)
}

[[noreturn]] void DieOfRoot(std::string_view name, std::string_view fault) {
    Die({kRootVariable, "=\"", name, "\": ", fault});
}

// The folder's path in the form in which /proc/self/fd gives the paths of open files.
void FindCanonicalRoot(Phone* phone) {
    const android::base::unique_fd folder(open(phone->root.text, O_PATH | O_DIRECTORY | O_CLOEXEC));
    if (folder < 0) DieOfRoot(phone->name.View(), "expected a folder that can be opened");
    if (!FindOpenPath(folder, &phone->canonical_root)) {
        DieOfRoot(phone->name.View(), "its path cannot be read from /proc/self/fd");
    }
}

void MapState(Phone* phone) {
    PathText path = phone->root;
    if (!path.Append(kStateFile)) DieOfRoot(phone->name.View(), "the path is too long");
    const android::base::unique_fd file(open(path.text, O_RDWR | O_CLOEXEC));
    if (file < 0) DieOfRoot(phone->name.View(), "expected a state file \"phone_state\" in it");
    struct stat status = {};
    if (fstat(file, &status) != 0 || status.st_size != sizeof(PhoneState)) {
        PathText sizes;
        sizes.Append("its phone_state has ");
        sizes.AppendNumber(static_cast<uint64_t>(status.st_size));
        sizes.Append(" bytes, expected ");
        sizes.AppendNumber(sizeof(PhoneState));
        DieOfRoot(phone->name.View(), sizes.View());
    }
    void* state = mmap(nullptr, sizeof(PhoneState), PROT_READ | PROT_WRITE, MAP_SHARED, file, 0);
    if (state == MAP_FAILED) DieOfRoot(phone->name.View(), "its phone_state cannot be mapped");
    phone->state = static_cast<PhoneState*>(state);
}

Phone* MeetPhone(std::string_view name) {
    auto* phone = static_cast<Phone*>(AllocatePages(sizeof(Phone)));
    if (!phone->name.Append(name)) DieOfRoot(name, "the path is too long");
    while (!name.empty() && name.back() == '/') name.remove_suffix(1);
    phone->root.Append(name);
    if (name.empty() || name[0] != '/') {
        DieOfRoot(phone->name.View(), "expected the absolute path of a folder other than /");
    }
    PathText ignored;
    if (FindPhonePath(phone->root.text, &ignored)) {
        DieOfRoot(phone->name.View(), "the folder must not lie below a path of the phone itself");
    }
    FindCanonicalRoot(phone);
    MapState(phone);
    // Two threads may meet it at once; the twin that comes second in the list is simply never
    // found.
    phone->next = g_phones.load();
    while (!g_phones.compare_exchange_weak(phone->next, phone)) {
    }
    return phone;
}

// The phone's log keeps every priority, the workstation's drops the lowest.
[[gnu::constructor]] void KeepEveryLogLine() {
    if (RootVariable() != nullptr) __android_log_set_minimum_priority(ANDROID_LOG_VERBOSE);
}

}  // namespace

Phone* CurrentPhone() {
    const char* name = RootVariable();
    Phone* phone = name == nullptr ? nullptr : g_phones.load();
    while (phone != nullptr && phone->name.View() != name) phone = phone->next;
    if (name != nullptr && phone == nullptr) phone = MeetPhone(name);
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

bool FindOpenPath(int fd, PathText* path) {
    PathText link;
    link.Append("/proc/self/fd/");
    link.AppendNumber(static_cast<uint64_t>(fd));
    const ssize_t length = readlink(link.text, path->text, sizeof(path->text) - 1);
    if (length <= 0) return false;
    path->Cut(static_cast<size_t>(length));
    return true;
}

void* AllocatePages(size_t size) {
    void* pages = mmap(nullptr, size, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
    if (pages == MAP_FAILED) Die({"out of memory"});
    return pages;
}

void Die(std::initializer_list<std::string_view> parts) {
    PathText line;
    line.Append("velmar_phone: ");
    for (const std::string_view part : parts) line.Append(part);
    line.Append("\n");
    if (write(STDERR_FILENO, line.text, line.length) < 0) abort();
    abort();
}

}  // namespace velmar_phone
