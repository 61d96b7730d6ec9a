#include "host/fake/FakeSemaphores.h"

#include <cerrno>

namespace Vantrel {
namespace Ostrand {
namespace host {

namespace {

int fail(int error)
{
    errno = error;
    return -1;
}

} // namespace

FakeSemaphores::Semaphore* FakeSemaphores::set(int id)
{
    long index = static_cast<long>(id) - m_firstId;
    if (index < 0 || static_cast<size_t>(index) >= m_sets.size() || m_sets[index].key == -1) {
        return nullptr;
    }
    return &m_sets[index];
}

int FakeSemaphores::semget(key_t key, int, int flags)
{
    for (const auto& refused : m_refused) {
        if (refused.first == key) {
            return fail(refused.second);
        }
    }
    for (size_t i = 0; i < m_sets.size(); ++i) {
        if (m_sets[i].key == key) {
            if ((flags & IPC_CREAT) != 0 && (flags & IPC_EXCL) != 0) {
                return fail(EEXIST);
            }
            return m_firstId + static_cast<int>(i);
        }
    }
    if ((flags & IPC_CREAT) == 0) {
        return fail(ENOENT);
    }
    m_sets.push_back({key, 0, 0});
    return m_firstId + static_cast<int>(m_sets.size() - 1);
}

int FakeSemaphores::semctl(int id, int, int command, int value)
{
    Semaphore* s = set(id);
    if (s == nullptr) {
        return fail(EINVAL);
    }
    switch (command) {
    case SETVAL: s->value = value; s->undo = 0; return 0;
    case GETVAL: return s->value;
    case IPC_RMID: s->key = -1; return 0;
    default: return fail(EINVAL);
    }
}

int FakeSemaphores::semop(int id, struct sembuf* operations, size_t count)
{
    Semaphore* s = set(id);
    if (s == nullptr || count == 0) {
        return fail(EINVAL);
    }
    // The kernel's limit of operations in one call.
    if (count > 500) {
        return fail(E2BIG);
    }
    for (size_t i = 0; i < count; ++i) {
        if (operations[i].sem_num != 0) {
            return fail(EFBIG);
        }
    }
    int value = s->value;
    int undo = s->undo;
    for (size_t i = 0; i < count; ++i) {
        value += operations[i].sem_op;
        if ((operations[i].sem_flg & SEM_UNDO) != 0) {
            undo -= operations[i].sem_op;
        }
    }
    if (value < 0) {
        return fail(EAGAIN);
    }
    s->value = value;
    s->undo = undo;
    return 0;
}

int FakeSemaphores::value(key_t key) const
{
    for (const auto& s : m_sets) {
        if (s.key == key) {
            return s.value;
        }
    }
    return -1;
}

int FakeSemaphores::undo(key_t key) const
{
    for (const auto& s : m_sets) {
        if (s.key == key) {
            return s.undo;
        }
    }
    return 0;
}

void FakeSemaphores::preset(key_t key, int value)
{
    for (auto& s : m_sets) {
        if (s.key == key) {
            s.value = value;
            return;
        }
    }
    m_sets.push_back({key, value, 0});
}

void FakeSemaphores::refuse(key_t key, int error) { m_refused.emplace_back(key, error); }

} // namespace host
} // namespace Ostrand
} // namespace Vantrel
