// System V semaphores of a fake machine: one process, one thread, so a wait
// that could never end is refused instead of blocking.
#pragma once

#include <sys/sem.h>
#include <sys/types.h>
#include <vector>

namespace Vantrel {
namespace Ostrand {
namespace host {

class FakeSemaphores {
public:
    // As libc: the result, or -1 with errno set.
    int semget(key_t key, int count, int flags);
    int semctl(int id, int number, int command, int value);
    int semop(int id, struct sembuf* operations, size_t count);

    // The value of the semaphore with this key, or -1 if there is none.
    int value(key_t key) const;
    // Makes a set with this key exist with this value, as another process
    // would have left it.
    void preset(key_t key, int value);
    // Makes semget with this key fail with the errno value.
    void refuse(key_t key, int error);
    // The undo adjustment that SEM_UNDO operations have gathered for the
    // semaphore with this key: what the kernel would give back at exit.
    int undo(key_t key) const;
    // The id of the first set made; a fresh kernel gives 0, as here by default.
    void setFirstId(int id) { m_firstId = id; }

private:
    struct Semaphore {
        key_t key;
        int value;
        int undo;
    };
    Semaphore* set(int id);
    std::vector<Semaphore> m_sets;
    int m_firstId = 0;
    std::vector<std::pair<key_t, int>> m_refused;
};

} // namespace host
} // namespace Ostrand
} // namespace Vantrel
