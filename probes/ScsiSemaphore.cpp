// The zt_sem_ family: one System V semaphore shared by every finder and
// every process that loads the library.
#include "probes/SCSIGeneric.h"

#include "host/Host.h"

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <sys/ipc.h>
#include <syslog.h>
#include <unistd.h>

namespace host = Vantrel::Ostrand::host;

namespace {

// IPC_CREAT | IPC_EXCL, mode 0600; and mode 0600 alone.
const int kCreateFlags = 0x780;
const int kAttachFlags = 0x180;

// The value the set is given by every creation and every attachment.
int setToOne(int semid)
{
    return host::semctl(semid, 0, SETVAL, 1) < 0 ? -1 : semid;
}

int semaphoreStep(int semid, short step)
{
    struct sembuf operation;
    operation.sem_num = 0;
    operation.sem_op = step;
    operation.sem_flg = SEM_UNDO;
    return zt_sem_semop_retry(semid, &operation, 1);
}

} // namespace

int zt_sem_create(int key)
{
    // 1. Make the set, if nobody has.
    int semid = host::semget(key, 1, kCreateFlags);
    if (semid < 0) {
        // 2. Only an existing set is no failure.
        if (errno != EEXIST) {
            return -1;
        }
    } else if (semid > 0) {
        // 3. Made: value 1. An id of exactly 0 is not taken as made here and
        // goes the way of an existing set.
        return setToOne(semid);
    }
    // 4. Attach to the existing set.
    semid = host::semget(key, 1, kAttachFlags);
    if (semid < 0) {
        return -1;
    }
    // 5. And set it to 1 here too, even if someone holds it.
    return setToOne(semid);
}

int zt_sem_free(int semid) { return host::semctl(semid, 0, IPC_RMID); }

int zt_sem_wait(int semid) { return semaphoreStep(semid, -1); }

int zt_sem_relinquish(int semid) { return semaphoreStep(semid, 1); }

int zt_sem_semop_retry(int semid, struct sembuf* ops, int count)
{
    int result;
    do {
        result = host::semop(semid, ops, static_cast<size_t>(count));
    } while (result == -1 && errno == EINTR);
    return result;
}

void zt_sem_print(char* format, char* argument)
{
    const size_t kLimit = 1024;
    // 1. The time, or 0.0.
    struct timeval now;
    if (host::gettimeofday(&now) != 0) {
        now.tv_sec = 0;
        now.tv_usec = 0;
    }
    // 2. The prefix. Its buffer has room for the appended text too, so that
    // the append of step 4, limited to 1024 characters, cannot run past it.
    char line[2 * kLimit];
    std::snprintf(line, kLimit, "PID %i @ %d.%d: ", static_cast<int>(::getpid()), static_cast<int>(now.tv_sec),
                  static_cast<int>(now.tv_usec));
    // 3. The caller's format with its one argument.
    char text[kLimit];
    text[0] = '\0';
    if (format != nullptr) {
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wformat-nonliteral"
#pragma GCC diagnostic ignored "-Wformat-security"
        std::snprintf(text, kLimit, format, argument);
#pragma GCC diagnostic pop
    }
    // 4. Joined, and handed to the log as its format.
    std::strncat(line, text, kLimit);
    host::syslog(LOG_INFO, line);
}
