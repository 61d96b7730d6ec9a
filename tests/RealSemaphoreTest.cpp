// The semaphore functions on the real kernel, with real processes. Each test
// forks a child that moves into an IPC namespace of its own (so the key of
// the library is never touched in the namespace of the machine that runs the
// tests), and there forks contenders that use the live machine's zt_sem_
// functions. Nothing sleeps: pipes, waitpid and a shared counter order the
// processes, and alarm() in every process turns a deadlock into a failure.
#include "probes/SCSIGeneric.h"

#include "host/Host.h"

#include <gtest/gtest.h>

#include <atomic>
#include <cerrno>
#include <csignal>
#include <cstring>
#include <functional>
#include <new>
#include <random>
#include <sched.h>
#include <string>
#include <sys/mman.h>
#include <sys/prctl.h>
#include <sys/sem.h>
#include <sys/wait.h>
#include <unistd.h>
#include <vector>

using namespace Vantrel::Ostrand;

namespace {

const int kSkipped = 77;
// Seconds before a stuck process is ended by SIGALRM. The tests take a small
// fraction of a second.
const unsigned int kWatchdogSeconds = 10;

// The write end of the report pipe of the namespace's first process; its
// contenders close their copy.
int g_reportFd = -1;

std::string ipcNamespace()
{
    char link[128];
    ssize_t n = ::readlink("/proc/self/ns/ipc", link, sizeof link - 1);
    return n < 0 ? "" : std::string(link, static_cast<size_t>(n));
}

bool writeAll(int fd, const std::string& text)
{
    size_t done = 0;
    while (done < text.size()) {
        ssize_t n = ::write(fd, text.data() + done, text.size() - done);
        if (n < 0 && errno == EINTR) {
            continue;
        }
        if (n <= 0) {
            return false;
        }
        done += static_cast<size_t>(n);
    }
    return true;
}

// Reads `count` bytes (or up to the end, if count is negative).
std::string readBytes(int fd, long count)
{
    std::string text;
    char buffer[256];
    while (count < 0 || static_cast<long>(text.size()) < count) {
        size_t want = count < 0 ? sizeof buffer : std::min(sizeof buffer, static_cast<size_t>(count) - text.size());
        ssize_t n = ::read(fd, buffer, want);
        if (n < 0 && errno == EINTR) {
            continue;
        }
        if (n <= 0) {
            break;
        }
        text.append(buffer, static_cast<size_t>(n));
    }
    return text;
}

struct Outcome {
    int status;
    std::string message;
};

// Runs `body` in a forked child inside an IPC namespace of its own. `body`
// gives the empty text on success, or what went wrong.
Outcome inPrivateIpcNamespace(const std::function<std::string()>& body)
{
    int report[2];
    if (::pipe(report) != 0) {
        return {1, "pipe failed"};
    }
    std::string outside = ipcNamespace();
    pid_t child = ::fork();
    if (child < 0) {
        return {1, "fork failed"};
    }
    if (child == 0) {
        ::close(report[0]);
        g_reportFd = report[1];
        ::alarm(kWatchdogSeconds);
        int status = 0;
        std::string message;
        if (::unshare(CLONE_NEWIPC) != 0 && ::unshare(CLONE_NEWUSER | CLONE_NEWIPC) != 0) {
            status = kSkipped;
            message = std::string("this process may not make an IPC namespace of its own (unshare: ") +
                      std::strerror(errno) + "), so the real semaphore is not exercised";
        } else if (outside.empty() || ipcNamespace() == outside) {
            status = 1;
            message = "still in the IPC namespace " + outside + " after unshare";
        } else {
            message = body();
            status = message.empty() ? 0 : 1;
        }
        writeAll(report[1], message);
        ::_exit(status);
    }
    ::close(report[1]);
    std::string message = readBytes(report[0], -1);
    ::close(report[0]);
    int raw = 0;
    while (::waitpid(child, &raw, 0) < 0 && errno == EINTR) {
    }
    if (WIFSIGNALED(raw)) {
        return {128 + WTERMSIG(raw), message + (WTERMSIG(raw) == SIGALRM ? " (the watchdog ended a stuck test)" : "")};
    }
    return {WEXITSTATUS(raw), message};
}

#define EXPECT_IN_PRIVATE_NAMESPACE(body)                                                                           \
    do {                                                                                                             \
        Outcome outcome = inPrivateIpcNamespace(body);                                                               \
        if (outcome.status == kSkipped) {                                                                            \
            GTEST_SKIP() << outcome.message;                                                                         \
        }                                                                                                            \
        EXPECT_EQ(outcome.status, 0) << outcome.message;                                                             \
    } while (0)

// Forks a process that runs `work` and exits with its result. It dies with
// its parent, and by the watchdog.
pid_t spawn(const std::function<int()>& work, std::initializer_list<int> closeInChild)
{
    pid_t pid = ::fork();
    if (pid == 0) {
        ::prctl(PR_SET_PDEATHSIG, SIGKILL);
        ::alarm(kWatchdogSeconds);
        ::close(g_reportFd);
        for (int fd : closeInChild) {
            ::close(fd);
        }
        ::_exit(work());
    }
    return pid;
}

// How a process ended: "exit N" or "signal N".
std::string ending(pid_t pid)
{
    int raw = 0;
    while (::waitpid(pid, &raw, 0) < 0) {
        if (errno != EINTR) {
            return "not a child";
        }
    }
    if (WIFSIGNALED(raw)) {
        return "signal " + std::to_string(WTERMSIG(raw));
    }
    return "exit " + std::to_string(WEXITSTATUS(raw));
}

int value(int semid) { return ::semctl(semid, 0, GETVAL); }

// Spins (yielding) until the condition holds; the watchdog bounds it.
void until(const std::function<bool()>& condition)
{
    while (!condition()) {
        ::sched_yield();
    }
}

// Memory that the processes of one test share.
template <typename T>
T* sharedBlock()
{
    void* area = ::mmap(nullptr, sizeof(T), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
    return area == MAP_FAILED ? nullptr : new (area) T();
}

const int kMaxContenders = 16;

struct Room {
    std::atomic<int> holder{0};   // pid of the process inside, 0 for none
    std::atomic<int> overlaps{0}; // entries that found someone alive inside
    std::atomic<int> entries{0};
    std::atomic<int> dead[kMaxContenders];
    int counter = 0; // read and written inside only, with a yield between

    Room()
    {
        for (auto& d : dead) {
            d.store(0);
        }
    }

    bool isDead(int pid) const
    {
        for (const auto& d : dead) {
            if (d.load() == pid) {
                return true;
            }
        }
        return false;
    }

    // Inside: nobody else may be, except one that was killed there.
    void enter(int me)
    {
        int found = 0;
        if (!holder.compare_exchange_strong(found, me)) {
            if (!isDead(found)) {
                overlaps.fetch_add(1);
            }
            holder.store(me);
        }
        int seen = counter;
        ::sched_yield();
        counter = seen + 1;
        entries.fetch_add(1);
    }

    void leave(int me)
    {
        int expected = me;
        holder.compare_exchange_strong(expected, 0);
    }
};

// A contender: attaches as the library does (and so sets the value to 1),
// says it is ready, waits for the start, then goes in and out `rounds` times
// (forever if negative).
int contend(Room* room, int ready, int start, int rounds)
{
    int semid = zt_sem_create(SCSI_GENERIC_SEM_KEY);
    if (semid < 0) {
        return 10;
    }
    if (!writeAll(ready, "r")) {
        return 11;
    }
    readBytes(start, 1);
    int me = static_cast<int>(::getpid());
    for (int i = 0; rounds < 0 || i < rounds; ++i) {
        if (zt_sem_wait(semid) != 0) {
            return 12;
        }
        room->enter(me);
        room->leave(me);
        if (zt_sem_relinquish(semid) != 0) {
            return 13;
        }
    }
    return 0;
}

// Starts `count` contenders and lets them go once all have attached.
std::vector<pid_t> startContenders(Room* room, int count, int rounds)
{
    int ready[2];
    int start[2];
    if (::pipe(ready) != 0 || ::pipe(start) != 0) {
        return {};
    }
    std::vector<pid_t> pids;
    for (int i = 0; i < count; ++i) {
        pids.push_back(spawn([=] { return contend(room, ready[1], start[0], rounds); }, {ready[0], start[1]}));
    }
    ::close(ready[1]);
    ::close(start[0]);
    readBytes(ready[0], count);
    ::close(ready[0]);
    ::close(start[1]); // the start: every contender's read ends
    return pids;
}

std::string commonChecks()
{
    if (&host::machine() != &host::liveMachine()) {
        return "a fake machine is installed";
    }
    errno = 0;
    if (::semget(SCSI_GENERIC_SEM_KEY, 1, 0) != -1 || errno != ENOENT) {
        return "the namespace is not fresh: the key already has a set";
    }
    return "";
}

} // namespace

TEST(RealSemaphoreTest, TheFirstSetOfAFreshKernelHasIdZeroAndIsSetToOneByTheSecondRoute)
{
    EXPECT_IN_PRIVATE_NAMESPACE([]() -> std::string {
        std::string problem = commonChecks();
        if (!problem.empty()) {
            return problem;
        }
        int semid = zt_sem_create(SCSI_GENERIC_SEM_KEY);
        if (semid != 0) {
            return "the first set has the id " + std::to_string(semid) + ", not 0";
        }
        if (value(semid) != 1) {
            return "value " + std::to_string(value(semid)) + " after creation";
        }
        struct semid_ds info;
        if (::semctl(semid, 0, IPC_STAT, &info) != 0 || (info.sem_perm.mode & 0777) != 0600) {
            return std::string("the set is not of mode 0600");
        }
        if (zt_sem_create(SCSI_GENERIC_SEM_KEY) != semid) {
            return std::string("a second creation gave another id");
        }
        return std::string();
    });
}

TEST(RealSemaphoreTest, ContendersAreInsideOneAtATime)
{
    EXPECT_IN_PRIVATE_NAMESPACE([]() -> std::string {
        std::string problem = commonChecks();
        if (!problem.empty()) {
            return problem;
        }
        Room* room = sharedBlock<Room>();
        const int contenders = 4;
        const int rounds = 250;
        std::vector<pid_t> pids = startContenders(room, contenders, rounds);
        for (pid_t pid : pids) {
            std::string end = ending(pid);
            if (end != "exit 0") {
                return "a contender ended with " + end;
            }
        }
        if (room->overlaps.load() != 0) {
            return std::to_string(room->overlaps.load()) + " entries found someone inside";
        }
        if (room->counter != contenders * rounds) {
            return "the counter is " + std::to_string(room->counter) + ", not " + std::to_string(contenders * rounds);
        }
        int semid = ::semget(SCSI_GENERIC_SEM_KEY, 1, 0);
        if (value(semid) != 1) {
            return "value " + std::to_string(value(semid)) + " at the end";
        }
        return std::string();
    });
}

TEST(RealSemaphoreTest, AHolderKilledWithSigkillGivesTheSemaphoreBackToAWaiter)
{
    EXPECT_IN_PRIVATE_NAMESPACE([]() -> std::string {
        std::string problem = commonChecks();
        if (!problem.empty()) {
            return problem;
        }
        int semid = zt_sem_create(SCSI_GENERIC_SEM_KEY);
        int held[2];
        int never[2];
        int got[2];
        if (semid < 0 || ::pipe(held) != 0 || ::pipe(never) != 0 || ::pipe(got) != 0) {
            return std::string("setup failed");
        }
        pid_t holder = spawn(
            [&] {
                if (zt_sem_wait(semid) != 0) {
                    return 1;
                }
                writeAll(held[1], "h");
                readBytes(never[0], 1); // holds until killed
                return 2;
            },
            {held[0], got[0], got[1]});
        ::close(held[1]);
        if (readBytes(held[0], 1) != "h") {
            return "the holder did not get in: " + ending(holder);
        }
        if (value(semid) != 0 || ::semctl(semid, 0, GETPID) != holder) {
            return std::string("the holder's hold is not seen");
        }
        pid_t waiter = spawn(
            [&] {
                if (zt_sem_wait(semid) != 0) {
                    return 1;
                }
                writeAll(got[1], "w");
                return zt_sem_relinquish(semid) == 0 ? 0 : 3;
            },
            {held[0], never[1], got[0]});
        ::close(got[1]);
        until([&] { return ::semctl(semid, 0, GETNCNT) == 1; });

        ::kill(holder, SIGKILL);
        std::string end = ending(holder);
        if (end != "signal 9") {
            return "the holder ended with " + end;
        }
        if (readBytes(got[0], 1) != "w") {
            return "the waiter never got in";
        }
        end = ending(waiter);
        if (end != "exit 0") {
            return "the waiter ended with " + end;
        }
        if (value(semid) != 1) {
            return "value " + std::to_string(value(semid)) + " after both";
        }
        return std::string();
    });
}

TEST(RealSemaphoreTest, EachCreationResetsTheValueToOneEvenWhileItIsHeldAndForgetsTheHoldersUndo)
{
    EXPECT_IN_PRIVATE_NAMESPACE([]() -> std::string {
        std::string problem = commonChecks();
        if (!problem.empty()) {
            return problem;
        }
        int semid = zt_sem_create(SCSI_GENERIC_SEM_KEY);
        int held[2];
        int never[2];
        if (semid < 0 || ::pipe(held) != 0 || ::pipe(never) != 0) {
            return std::string("setup failed");
        }
        auto holdForever = [&] {
            if (zt_sem_wait(semid) != 0) {
                return 1;
            }
            writeAll(held[1], "h");
            readBytes(never[0], 1);
            return 2;
        };
        pid_t first = spawn(holdForever, {held[0]});
        if (readBytes(held[0], 1) != "h") {
            return std::string("the first holder did not get in");
        }
        // Another process attaches as a constructor does: the value is 1 again,
        // and a second holder gets in beside the first.
        if (zt_sem_create(SCSI_GENERIC_SEM_KEY) != semid || value(semid) != 1) {
            return std::string("the attachment did not reset the value");
        }
        pid_t second = spawn(holdForever, {held[0]});
        if (readBytes(held[0], 1) != "h") {
            return std::string("the second holder did not get in");
        }
        if (value(semid) != 0) {
            return "value " + std::to_string(value(semid)) + " with two holders";
        }
        // The reset also cleared the first holder's undo adjustment: its
        // death gives nothing back; the second one's gives its hold back.
        ::kill(first, SIGKILL);
        ending(first);
        if (value(semid) != 0) {
            return "value " + std::to_string(value(semid)) + " after the first holder died";
        }
        ::kill(second, SIGKILL);
        ending(second);
        if (value(semid) != 1) {
            return "value " + std::to_string(value(semid)) + " after the second holder died";
        }
        // Holders that unlock instead, as the finders do when a lookup has
        // reset the semaphore under them: one more than it ever had.
        if (zt_sem_wait(semid) != 0 || zt_sem_create(SCSI_GENERIC_SEM_KEY) != semid || zt_sem_wait(semid) != 0 ||
            zt_sem_relinquish(semid) != 0 || zt_sem_relinquish(semid) != 0) {
            return std::string("lock, reset, lock, unlock, unlock failed");
        }
        if (value(semid) != 2) {
            return "value " + std::to_string(value(semid)) + " after two unlocks";
        }
        return std::string();
    });
}

TEST(RealSemaphoreTest, ContendersKilledAtRandomMomentsLeaveNoDeadlock)
{
    EXPECT_IN_PRIVATE_NAMESPACE([]() -> std::string {
        std::string problem = commonChecks();
        if (!problem.empty()) {
            return problem;
        }
        Room* room = sharedBlock<Room>();
        const int contenders = 6;
        std::vector<pid_t> alive = startContenders(room, contenders, -1);
        if (static_cast<int>(alive.size()) != contenders) {
            return std::string("setup failed");
        }
        std::mt19937 random(20240611u);
        int killed = 0;
        while (!alive.empty()) {
            size_t pick = random() % alive.size();
            pid_t victim = alive[pick];
            if (random() % 2 == 0) {
                // While it is inside, holding the semaphore.
                until([&] { return room->holder.load() == victim; });
            } else {
                // After a few more entries of anyone, wherever it is then.
                int target = room->entries.load() + static_cast<int>(random() % 20);
                until([&] { return room->entries.load() >= target; });
            }
            room->dead[killed++].store(victim);
            ::kill(victim, SIGKILL);
            std::string end = ending(victim);
            if (end != "signal 9") {
                return "a contender ended with " + end;
            }
            alive.erase(alive.begin() + static_cast<long>(pick));
            // The others still get in.
            if (!alive.empty()) {
                int now = room->entries.load();
                until([&] { return room->entries.load() > now + 2; });
            }
        }
        int semid = ::semget(SCSI_GENERIC_SEM_KEY, 1, 0);
        if (room->overlaps.load() != 0) {
            return std::to_string(room->overlaps.load()) + " entries found a live process inside";
        }
        if (value(semid) != 1) {
            return "value " + std::to_string(value(semid)) + " after every contender was killed";
        }
        if (::semctl(semid, 0, GETNCNT) != 0) {
            return std::string("someone still waits");
        }
        return std::string();
    });
}
