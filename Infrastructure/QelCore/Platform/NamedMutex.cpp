// Named process-shared locks: robust recursive pthread mutexes in POSIX shared memory.
#include "Infrastructure/QelCore/Platform/NamedMutex.h"

#include "Infrastructure/QelCore/Platform/Threads.h"
#include "Infrastructure/QelCore/Utilities/Immortal.h"

#include <fcntl.h>
#include <pthread.h>
#include <sys/file.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <chrono>
#include <cstdint>
#include <ctime>
#include <mutex>
#include <new>
#include <unordered_map>

namespace Qel::Core::Platform {

// The layout in shared memory; every process of the library uses the same one (the magic word
// carries a layout version).
struct NamedMutex::Shared
{
    std::atomic<std::uint32_t> magic;
    std::uint32_t size;
    pthread_mutex_t mutex;
    std::atomic<std::uint64_t> words[NamedMutex::sWORD_COUNT];
};

namespace {

constexpr std::uint32_t kMagic = 0x51504D02; // "QPM", layout 2 (with the holders' words)

struct Registry
{
    std::mutex lock;
    std::unordered_map<std::string, std::shared_ptr<NamedMutex>> byName;
};

Registry& Mappings()
{
    // Never destroyed: a lock may be used from exit handlers, and mappings stay for the process.
    static Utilities::Immortal<Registry> s_Registry;
    return s_Registry.Get();
}

// A fork's child starts with the registry's lock free: a thread of the parent may have held it.
void ResetRegistryLockInChild()
{
    new (&Mappings().lock) std::mutex();
}

[[maybe_unused]] const bool s_bForkHandlerRegistered = (AtForkChild(&ResetRegistryLockInChild), true);

// Sets up the mutex of a new (or half-made) object; the caller holds the file lock.
int InitShared(NamedMutex::Shared* shared)
{
    pthread_mutexattr_t attributes;
    int rc = pthread_mutexattr_init(&attributes);
    if (rc != 0) return rc;
    rc = pthread_mutexattr_setpshared(&attributes, PTHREAD_PROCESS_SHARED);
    if (rc == 0) rc = pthread_mutexattr_setrobust(&attributes, PTHREAD_MUTEX_ROBUST);
    if (rc == 0) rc = pthread_mutexattr_settype(&attributes, PTHREAD_MUTEX_RECURSIVE);
    if (rc == 0) rc = pthread_mutex_init(&shared->mutex, &attributes);
    pthread_mutexattr_destroy(&attributes);
    if (rc != 0) return rc;
    for (auto& word : shared->words) word.store(0, std::memory_order_relaxed);
    shared->size = sizeof(NamedMutex::Shared);
    shared->magic.store(kMagic, std::memory_order_release);
    return 0;
}

timespec RealtimeAfter(std::int64_t ticks)
{
    // pthread_mutex_timedlock takes a wall-clock instant; it is made from the monotonic time left,
    // and the caller waits again for what is left should the wall clock jump.
    timespec now;
    clock_gettime(CLOCK_REALTIME, &now);
    std::int64_t nanoseconds = ticks * 100;
    timespec at;
    at.tv_sec = now.tv_sec + static_cast<time_t>(nanoseconds / 1000000000);
    at.tv_nsec = now.tv_nsec + static_cast<long>(nanoseconds % 1000000000);
    if (at.tv_nsec >= 1000000000) {
        at.tv_nsec -= 1000000000;
        ++at.tv_sec;
    }
    return at;
}

} // namespace

std::string NamedMutex::ObjectName(const std::string& name)
{
    std::string escaped;
    for (unsigned char c : name) {
        if (c == '/' || c == '%' || c < 0x20 || c == 0x7F) {
            static const char digits[] = "0123456789ABCDEF";
            escaped += '%';
            escaped += digits[c >> 4];
            escaped += digits[c & 0xF];
        } else {
            escaped += static_cast<char>(c);
        }
    }
    if (escaped.size() > 200) {
        // Too long for a file name: a prefix and a hash of the whole name (FNV-1a, 64 bits).
        std::uint64_t hash = 14695981039346656037ull;
        for (unsigned char c : name) hash = (hash ^ c) * 1099511628211ull;
        static const char digits[] = "0123456789abcdef";
        std::string hex;
        for (int shift = 60; shift >= 0; shift -= 4) hex += digits[(hash >> shift) & 0xF];
        escaped = escaped.substr(0, 160) + "#" + hex;
    }
    return "/qel.pm." + escaped;
}

std::shared_ptr<NamedMutex> NamedMutex::Open(const std::string& name, int& error)
{
    error = 0;
    Registry& registry = Mappings();
    std::lock_guard<std::mutex> guard(registry.lock);
    auto found = registry.byName.find(name);
    if (found != registry.byName.end()) return found->second;

    const std::string object = ObjectName(name);
    int fd = shm_open(object.c_str(), O_CREAT | O_RDWR | O_CLOEXEC, 0666);
    if (fd < 0) {
        error = errno;
        return nullptr;
    }
    (void)fchmod(fd, 0666); // open to every user of the machine, whatever the umask
    // One process at a time sets the object up; one that died half way leaves no magic word, and
    // the next one sets it up again.
    while (flock(fd, LOCK_EX) != 0 && errno == EINTR) {
    }
    struct stat status;
    void* memory = MAP_FAILED;
    if (fstat(fd, &status) != 0) {
        error = errno;
    } else if (status.st_size < static_cast<off_t>(sizeof(Shared)) && ftruncate(fd, sizeof(Shared)) != 0) {
        error = errno;
    } else {
        memory = mmap(nullptr, sizeof(Shared), PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0);
        if (memory == MAP_FAILED) error = errno;
    }
    if (memory != MAP_FAILED) {
        auto* shared = static_cast<Shared*>(memory);
        if (shared->magic.load(std::memory_order_acquire) != kMagic) error = InitShared(shared);
        if (error != 0) {
            munmap(memory, sizeof(Shared));
            memory = MAP_FAILED;
        }
    }
    flock(fd, LOCK_UN);
    close(fd);
    if (memory == MAP_FAILED) return nullptr;
    auto mutex = std::make_shared<NamedMutex>(static_cast<Shared*>(memory));
    registry.byName.emplace(name, mutex);
    return mutex;
}

bool NamedMutex::Remove(const std::string& name)
{
    return shm_unlink(ObjectName(name).c_str()) == 0;
}

NamedMutex::Result NamedMutex::LockUntil(const Deadline* deadline, int& error)
{
    error = 0;
    for (;;) {
        int rc;
        if (!deadline) {
            rc = pthread_mutex_lock(&m_pShared->mutex);
        } else {
            rc = pthread_mutex_trylock(&m_pShared->mutex);
            if (rc == EBUSY) {
                std::int64_t left = TicksLeft(*deadline);
                if (left <= 0) return eTIMEOUT;
                timespec at = RealtimeAfter(left);
                rc = pthread_mutex_timedlock(&m_pShared->mutex, &at);
                if (rc == ETIMEDOUT) {
                    if (HasPassed(*deadline)) return eTIMEOUT;
                    continue; // the wall clock went ahead of the monotonic deadline
                }
            }
        }
        if (rc == 0) return eACQUIRED;
        if (rc == EOWNERDEAD) {
            // The owner died holding it: the lock is ours; mark it usable for those after us.
            pthread_mutex_consistent(&m_pShared->mutex);
            return eABANDONED;
        }
        if (rc == EINTR) continue;
        error = rc;
        return eFAILED;
    }
}

std::atomic<std::uint64_t>* NamedMutex::Words()
{
    return m_pShared->words;
}

void NamedMutex::Unlock()
{
    (void)pthread_mutex_unlock(&m_pShared->mutex); // EPERM for a thread that is not the owner
}

} // namespace Qel::Core::Platform
