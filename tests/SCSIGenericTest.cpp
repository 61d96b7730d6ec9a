// SCSI generic access on fake machines: the semaphore functions step by step,
// the constructors, the module load, the scan of the sg nodes, the map, and
// each command byte for byte, with the outcomes of every kind of reply.
#include "probes/SCSIGeneric.h"

#include "host/fake/FakeMachine.h"
#include "host/fake/MachineDirectory.h"
#include "host/models/SgModel.h"
#include "probes/ScsiData.h"
#include "tests/support/Machines.h"
#include "tests/support/ScsiNodes.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <fcntl.h>
#include <scsi/scsi.h>
#include <sstream>
#include <syslog.h>
#include <unistd.h>

using namespace Vantrel::Ostrand;
using host::SgModel;
using host::SgReply;
using ostrand_test::addSgNode;
using ostrand_test::bytes;
using ostrand_test::RecordingMachine;

namespace {

using Calls = std::vector<std::string>;

const key_t kKey = SCSI_GENERIC_SEM_KEY;
const char* const kModprobe = "modprobe -v sg 2>&1";

std::string semget(int flags, int result)
{
    char flagText[16];
    std::snprintf(flagText, sizeof flagText, "%#x", flags);
    return std::string("semget key=0x1fe101f count=1 flags=") + flagText + " -> " + std::to_string(result);
}

std::string setOne(int id, int result = 0)
{
    return "semctl id=" + std::to_string(id) + " num=0 SETVAL value=1 -> " + std::to_string(result);
}

std::string step(int id, int op, int result = 0)
{
    return "semop id=" + std::to_string(id) + " {num=0 op=" + std::to_string(op) + " flg=0x1000} -> " +
           std::to_string(result);
}

// The release of the lab server under the 2.6 personality, from its capture:
// the first line, uname -r.
std::string labServer26Release()
{
    std::istringstream words(ostrand_test::capture("lab-server/uname-2.6.txt"));
    std::string release;
    words >> release;
    return release;
}

std::unique_ptr<host::FakeMachine> labServer()
{
    return host::loadMachine(std::string(OSTRAND_SOURCE_DIR) + "/samples/lab-server");
}

class SemaphoreTest : public ::testing::Test {
protected:
    RecordingMachine machine;
    host::ScopedMachine scope{machine};
};

// A machine with a semaphore already made and sg nodes to talk to.
class ScsiGenericTest : public ::testing::Test {
protected:
    int openNode(const std::string& path) { return host::open(path.c_str(), O_RDWR | O_NONBLOCK); }

    // A node whose only replies to `opcode` are these.
    std::shared_ptr<SgModel> node(int opcode, std::initializer_list<SgReply> replies)
    {
        auto model = addSgNode(machine, "/dev/sg0", 0, 0, 0, 0, 5);
        for (const SgReply& reply : replies) {
            model->addReply(opcode, reply);
        }
        return model;
    }

    SgReply withSenseLength(SgReply reply, int length)
    {
        reply.senseLength = length;
        return reply;
    }

    RecordingMachine machine;
    host::ScopedMachine scope{machine};
    SCSIGeneric sg;
};

} // namespace

// --- The semaphore functions ---------------------------------------------------

TEST_F(SemaphoreTest, CreateOnAFreshKernelTakesIdZeroForNoSuccessAndAttachesAgain)
{
    EXPECT_EQ(zt_sem_create(kKey), 0);
    EXPECT_EQ(machine.semaphoreCalls, (Calls{semget(0x780, 0), semget(0x180, 0), setOne(0)}));
    EXPECT_EQ(machine.semaphoreValue(kKey), 1);
}

TEST_F(SemaphoreTest, CreateWithAPositiveIdSetsOneAndReturnsIt)
{
    machine.semaphores().setFirstId(7);
    EXPECT_EQ(zt_sem_create(kKey), 7);
    EXPECT_EQ(machine.semaphoreCalls, (Calls{semget(0x780, 7), setOne(7)}));
    EXPECT_EQ(machine.semaphoreValue(kKey), 1);
}

TEST_F(SemaphoreTest, AnExistingSetIsAttachedAndResetToOneEvenWhileHeld)
{
    machine.semaphores().setFirstId(3);
    machine.semaphores().preset(kKey, 0);
    EXPECT_EQ(zt_sem_create(kKey), 3);
    EXPECT_EQ(machine.semaphoreCalls, (Calls{semget(0x780, -1), semget(0x180, 3), setOne(3)}));
    EXPECT_EQ(machine.semaphoreValue(kKey), 1);
}

TEST_F(SemaphoreTest, ARefusedSemgetGivesMinusOneWithoutASecondTry)
{
    machine.semaphores().refuse(kKey, EACCES);
    EXPECT_EQ(zt_sem_create(kKey), -1);
    EXPECT_EQ(errno, EACCES);
    EXPECT_EQ(machine.semaphoreCalls, (Calls{semget(0x780, -1)}));
}

TEST_F(SemaphoreTest, AnExistingSetThatCannotBeAttachedGivesMinusOne)
{
    machine.semaphores().preset(kKey, 0);
    machine.failures["semget"] = {0, EACCES};
    EXPECT_EQ(zt_sem_create(kKey), -1);
    EXPECT_EQ(machine.semaphoreCalls, (Calls{semget(0x780, -1), semget(0x180, -1)}));
    EXPECT_EQ(machine.semaphoreValue(kKey), 0);
}

TEST_F(SemaphoreTest, AFailedSetvalGivesMinusOneOnTheCreatingPath)
{
    machine.semaphores().setFirstId(4);
    machine.failures["semctl"] = {EPERM};
    EXPECT_EQ(zt_sem_create(kKey), -1);
    EXPECT_EQ(machine.semaphoreCalls, (Calls{semget(0x780, 4), setOne(4, -1)}));
    // Made, but never set: a fresh set's value.
    EXPECT_EQ(machine.semaphoreValue(kKey), 0);
}

TEST_F(SemaphoreTest, AFailedSetvalGivesMinusOneOnTheAttachingPath)
{
    machine.semaphores().preset(kKey, 0);
    machine.failures["semctl"] = {EPERM};
    EXPECT_EQ(zt_sem_create(kKey), -1);
    EXPECT_EQ(machine.semaphoreCalls, (Calls{semget(0x780, -1), semget(0x180, 0), setOne(0, -1)}));
}

TEST_F(SemaphoreTest, WaitTakesOneWithUndoAndRelinquishGivesItBack)
{
    int id = zt_sem_create(kKey);
    machine.semaphoreCalls.clear();
    EXPECT_EQ(zt_sem_wait(id), 0);
    EXPECT_EQ(machine.semaphoreValue(kKey), 0);
    // What the kernel would give back if the process ended now.
    EXPECT_EQ(machine.semaphores().undo(kKey), 1);
    EXPECT_EQ(zt_sem_relinquish(id), 0);
    EXPECT_EQ(machine.semaphoreValue(kKey), 1);
    EXPECT_EQ(machine.semaphores().undo(kKey), 0);
    EXPECT_EQ(machine.semaphoreCalls, (Calls{step(0, -1), step(0, 1)}));
}

TEST_F(SemaphoreTest, AnInterruptedWaitIsRepeatedUntilItGoesThrough)
{
    int id = zt_sem_create(kKey);
    machine.semaphoreCalls.clear();
    machine.failures["semop"] = {EINTR, EINTR};
    EXPECT_EQ(zt_sem_wait(id), 0);
    EXPECT_EQ(machine.semaphoreCalls, (Calls{step(0, -1, -1), step(0, -1, -1), step(0, -1)}));
    EXPECT_EQ(machine.semaphoreValue(kKey), 0);
}

TEST_F(SemaphoreTest, AnInterruptedRelinquishIsRepeatedToo)
{
    int id = zt_sem_create(kKey);
    zt_sem_wait(id);
    machine.semaphoreCalls.clear();
    machine.failures["semop"] = {EINTR};
    EXPECT_EQ(zt_sem_relinquish(id), 0);
    EXPECT_EQ(machine.semaphoreCalls, (Calls{step(0, 1, -1), step(0, 1)}));
    EXPECT_EQ(machine.semaphoreValue(kKey), 1);
}

TEST_F(SemaphoreTest, OtherErrorsAreReturnedAtOnce)
{
    int id = zt_sem_create(kKey);
    machine.semaphoreCalls.clear();
    machine.failures["semop"] = {EIDRM};
    EXPECT_EQ(zt_sem_wait(id), -1);
    EXPECT_EQ(errno, EIDRM);
    EXPECT_EQ(machine.semaphoreCalls, (Calls{step(0, -1, -1)}));
    // The fake cannot block: a wait on a held semaphore is refused with EAGAIN, once.
    machine.semaphores().preset(kKey, 0);
    machine.semaphoreCalls.clear();
    EXPECT_EQ(zt_sem_wait(id), -1);
    EXPECT_EQ(errno, EAGAIN);
    EXPECT_EQ(machine.semaphoreCalls.size(), 1u);
}

TEST_F(SemaphoreTest, SemopRetryHandsTheOperationsOverAsTheyAre)
{
    int id = zt_sem_create(kKey);
    struct sembuf operation = {0, 2, 0};
    EXPECT_EQ(zt_sem_semop_retry(id, &operation, 1), 0);
    EXPECT_EQ(machine.semaphoreValue(kKey), 3);
    EXPECT_EQ(machine.semaphores().undo(kKey), 0);
    EXPECT_EQ(machine.semaphoreCalls.back(), "semop id=0 {num=0 op=2 flg=0} -> 0");
}

TEST_F(SemaphoreTest, WaitAndRelinquishOnAnIdThatIsNotThereFail)
{
    EXPECT_EQ(zt_sem_wait(-1), -1);
    EXPECT_EQ(errno, EINVAL);
    EXPECT_EQ(zt_sem_relinquish(42), -1);
    EXPECT_EQ(errno, EINVAL);
}

TEST_F(SemaphoreTest, FreeRemovesTheSet)
{
    int id = zt_sem_create(kKey);
    machine.semaphoreCalls.clear();
    EXPECT_EQ(zt_sem_free(id), 0);
    EXPECT_EQ(machine.semaphoreCalls, (Calls{"semctl id=0 num=0 IPC_RMID -> 0"}));
    EXPECT_EQ(machine.semaphoreValue(kKey), -1);
    EXPECT_EQ(zt_sem_free(id), -1);
}

TEST_F(SemaphoreTest, PrintWritesOneInfoLineWithPidAndTime)
{
    machine.clock().advance(123456);
    char format[] = "waiting for %s";
    char argument[] = "/dev/sg0";
    zt_sem_print(format, argument);
    ASSERT_EQ(machine.logLines().size(), 1u);
    EXPECT_EQ(machine.logLines()[0].priority, LOG_INFO);
    EXPECT_EQ(machine.logLines()[0].format,
              "PID " + std::to_string(::getpid()) + " @ 1700000000.123456: waiting for /dev/sg0");
}

TEST_F(SemaphoreTest, PrintWithoutTheTimeOfDayTakesZero)
{
    machine.refuseTimeOfDay(EFAULT);
    char format[] = "%s";
    char argument[] = "x";
    zt_sem_print(format, argument);
    ASSERT_EQ(machine.logLines().size(), 1u);
    EXPECT_EQ(machine.logLines()[0].format, "PID " + std::to_string(::getpid()) + " @ 0.0: x");
}

TEST_F(SemaphoreTest, PrintCutsTheCallersTextAt1023Characters)
{
    std::string longText(3000, 'a');
    char format[] = "%s";
    zt_sem_print(format, &longText[0]);
    ASSERT_EQ(machine.logLines().size(), 1u);
    std::string prefix = "PID " + std::to_string(::getpid()) + " @ 1700000000.0: ";
    EXPECT_EQ(machine.logLines()[0].format, prefix + std::string(1023, 'a'));
}

TEST_F(SemaphoreTest, PrintHandsTheLineToTheLogAsItsFormat)
{
    // The caller's text is formatted once here; what comes of it goes to the
    // log as the format, so a percent sign in it stays for syslog to read.
    char format[] = "%s";
    char argument[] = "100%% busy";
    zt_sem_print(format, argument);
    ASSERT_EQ(machine.logLines().size(), 1u);
    const std::string& line = machine.logLines()[0].format;
    EXPECT_EQ(line.substr(line.size() - 10), "100%% busy");
}

TEST_F(SemaphoreTest, PrintWithoutAFormatLogsThePrefixAlone)
{
    char argument[] = "x";
    zt_sem_print(nullptr, argument);
    ASSERT_EQ(machine.logLines().size(), 1u);
    EXPECT_EQ(machine.logLines()[0].format, "PID " + std::to_string(::getpid()) + " @ 1700000000.0: ");
}

// --- Constructors and the lock ----------------------------------------------------

TEST_F(SemaphoreTest, TheFullConstructorMakesTheSemaphoreWithValueOne)
{
    SCSIGeneric sg;
    EXPECT_EQ(machine.semaphoreValue(kKey), 1);
    EXPECT_EQ(machine.semaphoreCalls, (Calls{semget(0x780, 0), semget(0x180, 0), setOne(0)}));
    EXPECT_EQ(sg.getNumofActiveSGs(), 0);
}

TEST_F(SemaphoreTest, EveryFullConstructorResetsTheSemaphoreToOneEvenWhileItIsHeld)
{
    SCSIGeneric first;
    ASSERT_EQ(first.sempahore_lock(), 0);
    EXPECT_EQ(machine.semaphoreValue(kKey), 0);
    SCSIGeneric second;
    EXPECT_EQ(machine.semaphoreValue(kKey), 1);
    // As on the kernel, setting the value forgets the holder's undo adjustment.
    EXPECT_EQ(machine.semaphores().undo(kKey), 0);
    // So the second gets in while the first holds it, and after both unlock
    // the value is 2.
    EXPECT_EQ(second.sempahore_lock(), 0);
    EXPECT_EQ(first.sempahore_unlock(), 0);
    EXPECT_EQ(second.sempahore_unlock(), 0);
    EXPECT_EQ(machine.semaphoreValue(kKey), 2);
}

TEST_F(SemaphoreTest, TheLightConstructorTouchesNothing)
{
    machine.setUname(labServer26Release(), "x86_64");
    {
        SCSIGeneric light(0);
        EXPECT_EQ(light.getNumofActiveSGs(), 0);
        EXPECT_EQ(light.getSgfromMap(0, 0, 0, 0, 0), "");
    }
    EXPECT_TRUE(machine.semaphoreCalls.empty());
    EXPECT_TRUE(machine.commands().empty());
    EXPECT_EQ(machine.semaphoreValue(kKey), -1);
}

TEST_F(SemaphoreTest, TheLightObjectsLockFailsAtOnce)
{
    machine.semaphores().preset(kKey, 1);
    SCSIGeneric light(1);
    EXPECT_EQ(light.sempahore_lock(), -1);
    EXPECT_EQ(light.sempahore_unlock(), -1);
    EXPECT_EQ(machine.semaphoreValue(kKey), 1);
    EXPECT_EQ(machine.semaphoreCalls, (Calls{"semop id=-1 {num=0 op=-1 flg=0x1000} -> -1",
                                             "semop id=-1 {num=0 op=1 flg=0x1000} -> -1"}));
}

TEST_F(SemaphoreTest, ASuccessfulLockLeavesTheFlagClearSoTheDestructorDoesNotGiveItBack)
{
    {
        SCSIGeneric sg;
        EXPECT_EQ(sg.sempahore_lock(), 0);
    }
    EXPECT_EQ(machine.semaphoreValue(kKey), 0);
    EXPECT_EQ(machine.semaphoreCalls.back(), step(0, -1));
    // What SEM_UNDO gives back when the process ends.
    EXPECT_EQ(machine.semaphores().undo(kKey), 1);
}

TEST_F(SemaphoreTest, AWaitThatAnswersAboveZeroSetsTheFlagAndTheDestructorGivesItBack)
{
    machine.semopResult = 1;
    {
        SCSIGeneric sg;
        EXPECT_EQ(sg.sempahore_lock(), 1);
        EXPECT_EQ(machine.semaphoreValue(kKey), 0);
    }
    EXPECT_EQ(machine.semaphoreCalls.back(), step(0, 1, 1));
    EXPECT_EQ(machine.semaphoreValue(kKey), 1);
}

TEST_F(SemaphoreTest, UnlockClearsTheFlag)
{
    machine.semopResult = 1;
    {
        SCSIGeneric sg;
        sg.sempahore_lock();
        EXPECT_EQ(sg.sempahore_unlock(), 1);
    }
    // One relinquish only: the unlock's.
    EXPECT_EQ(machine.semaphoreCalls, (Calls{semget(0x780, 0), semget(0x180, 0), setOne(0), step(0, -1, 1),
                                             step(0, 1, 1)}));
}

TEST_F(SemaphoreTest, AMissingSemaphoreMakesTheLockFailAtOnce)
{
    machine.semaphores().refuse(kKey, ENOSPC);
    SCSIGeneric sg;
    EXPECT_EQ(sg.sempahore_lock(), -1);
    EXPECT_EQ(sg.sempahore_unlock(), -1);
    EXPECT_EQ(machine.semaphoreCalls, (Calls{semget(0x780, -1), "semop id=-1 {num=0 op=-1 flg=0x1000} -> -1",
                                             "semop id=-1 {num=0 op=1 flg=0x1000} -> -1"}));
}

TEST_F(SemaphoreTest, NothingInTheLibraryWritesToTheLog)
{
    auto lab = labServer();
    host::ScopedMachine labScope{*lab};
    SCSIGeneric sg;
    sg.sempahore_lock();
    sg.setnumOfValidSgNodes();
    int fd = host::open("/dev/sg0", O_RDWR | O_NONBLOCK);
    unsigned char buffer[36] = {};
    int blocks = 0;
    sg.scsiGenericIoctl(fd, SG_IO, 0x12, buffer, 36);
    sg.doTestUnitReady(fd);
    sg.doReadCapacity(fd, blocks);
    sg.isEmulated(fd);
    host::close(fd);
    sg.sempahore_unlock();
    EXPECT_TRUE(lab->logLines().empty());
}

// --- The module ------------------------------------------------------------------------

TEST(ScsiGenericModuleTest, A26KernelRunsModprobeOnceAndReadsItToTheEnd)
{
    host::FakeMachine machine;
    machine.setUname(labServer26Release(), "x86_64");
    std::string output = "insmod /lib/modules/2.6.61-56-amd64/kernel/drivers/scsi/sg.ko " + std::string(300, 'x') +
                         "\nsecond line\n";
    machine.addCommand(kModprobe, output);
    host::ScopedMachine scope{machine};
    SCSIGeneric sg;
    EXPECT_EQ(machine.commands(), std::vector<std::string>{kModprobe});
    EXPECT_EQ(machine.openStreams(), 0u);
}

TEST(ScsiGenericModuleTest, OtherReleasesRunNothing)
{
    for (const char* release : {"2.4.21", "3.0.13", "6.1.0-56-amd64", "2.", "2", "", "12.6.1", " 2.6"}) {
        host::FakeMachine machine;
        machine.setUname(release, "x86_64");
        host::ScopedMachine scope{machine};
        SCSIGeneric sg;
        EXPECT_TRUE(machine.commands().empty()) << release;
    }
}

TEST(ScsiGenericModuleTest, EveryReleaseBeginningWith26RunsIt)
{
    for (const char* release : {"2.6", "2.6.9-89.ELsmp", "2.6.32-754.el6.x86_64", "2.60.1"}) {
        host::FakeMachine machine;
        machine.setUname(release, "x86_64");
        host::ScopedMachine scope{machine};
        SCSIGeneric sg;
        EXPECT_EQ(machine.timesRun(kModprobe), 1) << release;
    }
}

TEST(ScsiGenericModuleTest, AMissingModprobeChangesNothing)
{
    host::FakeMachine machine;
    machine.setUname("2.6.18", "x86_64");
    addSgNode(machine, "/dev/sg0", 0, 0, 0, 0, 5);
    host::ScopedMachine scope{machine};
    SCSIGeneric sg;
    EXPECT_EQ(machine.commands(), std::vector<std::string>{kModprobe});
    EXPECT_EQ(machine.openStreams(), 0u);
    sg.setnumOfValidSgNodes();
    EXPECT_EQ(sg.getNumofActiveSGs(), 1);
}

// --- The scan ---------------------------------------------------------------------------------

TEST(ScsiGenericScanTest, TheLabServerHasFiveSgNodesAtTheAddressesItsKernelGave)
{
    auto machine = labServer();
    host::ScopedMachine scope{*machine};
    SCSIGeneric sg;
    ASSERT_EQ(sg.sempahore_lock(), 0);
    sg.setnumOfValidSgNodes();
    EXPECT_EQ(sg.sempahore_unlock(), 0);
    EXPECT_EQ(sg.getNumofActiveSGs(), 5);
    auto captures = ostrand_test::labServerSgCaptures();
    ASSERT_EQ(captures.size(), 5u);
    for (const auto& node : captures) {
        const host::ScsiAddress& a = node.second.address;
        EXPECT_EQ(sg.getSgfromMap(a.type, a.host, a.id, a.lun, a.channel), node.first);
        auto model = std::dynamic_pointer_cast<SgModel>(machine->model(node.first));
        ASSERT_NE(model, nullptr) << node.first;
        EXPECT_EQ(model->openFlags(), std::vector<int>{O_RDONLY | O_NONBLOCK}) << node.first;
        EXPECT_EQ(machine->ioctlNames(node.first), std::vector<std::string>{"SG_GET_SCSI_ID"});
    }
    std::vector<std::string> sgOpens;
    for (const auto& path : machine->opens()) {
        if (path.compare(0, 7, "/dev/sg") == 0) {
            sgOpens.push_back(path);
        }
    }
    EXPECT_EQ(sgOpens, (std::vector<std::string>{"/dev/sg0", "/dev/sg1", "/dev/sg2", "/dev/sg3", "/dev/sg4"}));
    EXPECT_TRUE(machine->openDescriptors().empty());
    EXPECT_TRUE(machine->sleeps().empty());
    EXPECT_EQ(machine->semaphoreValue(kKey), 1);
}

TEST(ScsiGenericScanTest, NoSgNodesAtAllWaitsTenSecondsOnceThenCountsZero)
{
    host::FakeMachine machine;
    machine.addNode("/dev/sda", 'b', nullptr);
    host::ScopedMachine scope{machine};
    SCSIGeneric sg;
    sg.setnumOfValidSgNodes();
    EXPECT_EQ(sg.getNumofActiveSGs(), 0);
    ASSERT_EQ(machine.sleeps().size(), 1u);
    EXPECT_EQ(machine.sleeps()[0].call, "sleepForSeconds");
    EXPECT_EQ(machine.sleeps()[0].microseconds, 10000000);
    EXPECT_EQ(machine.clock().elapsed(), 10000000);
    EXPECT_TRUE(machine.opens().empty());
}

TEST(ScsiGenericScanTest, NodesThatAppearDuringTheWaitAreFound)
{
    RecordingMachine machine;
    machine.afterSleep = [](RecordingMachine& m) { addSgNode(m, "/dev/sg0", 2, 0, 2, 0, 5); };
    host::ScopedMachine scope{machine};
    SCSIGeneric sg;
    sg.setnumOfValidSgNodes();
    EXPECT_EQ(sg.getNumofActiveSGs(), 1);
    EXPECT_EQ(sg.getSgfromMap(5, 2, 2, 0, 0), "/dev/sg0");
    EXPECT_EQ(machine.sleeps().size(), 1u);
}

TEST(ScsiGenericScanTest, NodesAreWalkedInAlphabeticalOrder)
{
    RecordingMachine machine;
    addSgNode(machine, "/dev/sg2", 0, 0, 2, 0, 5);
    addSgNode(machine, "/dev/sg10", 0, 0, 10, 0, 5);
    addSgNode(machine, "/dev/sg1", 0, 0, 1, 0, 5);
    host::ScopedMachine scope{machine};
    SCSIGeneric sg;
    sg.setnumOfValidSgNodes();
    EXPECT_EQ(machine.opens(), (std::vector<std::string>{"/dev/sg1", "/dev/sg10", "/dev/sg2"}));
    EXPECT_EQ(sg.getNumofActiveSGs(), 3);
    EXPECT_EQ(sg.getSgfromMap(5, 0, 10, 0, 0), "/dev/sg10");
}

TEST(ScsiGenericScanTest, ABusyNodeIsLeftOutAndNotAsked)
{
    RecordingMachine machine;
    addSgNode(machine, "/dev/sg0", 1, 0, 0, 0, 5);
    addSgNode(machine, "/dev/sg1", 2, 0, 0, 0, 5);
    machine.denyOpen("/dev/sg1", EBUSY);
    host::ScopedMachine scope{machine};
    SCSIGeneric sg;
    sg.setnumOfValidSgNodes();
    EXPECT_EQ(sg.getNumofActiveSGs(), 1);
    EXPECT_EQ(sg.getSgfromMap(5, 1, 0, 0, 0), "/dev/sg0");
    EXPECT_EQ(sg.getSgfromMap(5, 2, 0, 0, 0), "");
    EXPECT_EQ(machine.opens(), (std::vector<std::string>{"/dev/sg0", "/dev/sg1"}));
    ASSERT_EQ(machine.ioctlAttempts.size(), 1u);
    EXPECT_EQ(machine.ioctlAttempts[0].request, static_cast<unsigned long>(SG_GET_SCSI_ID));
}

TEST(ScsiGenericScanTest, ANodeThatRefusesItsAddressIsLeftOutAndClosed)
{
    host::FakeMachine machine;
    auto model = addSgNode(machine, "/dev/sg0", 1, 0, 0, 0, 5);
    model->refuse(SG_GET_SCSI_ID, EINVAL);
    host::ScopedMachine scope{machine};
    SCSIGeneric sg;
    sg.setnumOfValidSgNodes();
    EXPECT_EQ(sg.getNumofActiveSGs(), 0);
    EXPECT_EQ(sg.getSgfromMap(5, 1, 0, 0, 0), "");
    EXPECT_EQ(machine.ioctlNames("/dev/sg0"), std::vector<std::string>{"SG_GET_SCSI_ID"});
    EXPECT_TRUE(machine.openDescriptors().empty());
    // The node was there, so there was no wait.
    EXPECT_TRUE(machine.sleeps().empty());
}

TEST(ScsiGenericScanTest, ANodeThatCannotBeOpenedForAnotherReasonIsStillAskedOnTheBadDescriptor)
{
    RecordingMachine machine;
    addSgNode(machine, "/dev/sg0", 1, 0, 0, 0, 5);
    machine.denyOpen("/dev/sg0", EACCES);
    host::ScopedMachine scope{machine};
    SCSIGeneric sg;
    sg.setnumOfValidSgNodes();
    EXPECT_EQ(sg.getNumofActiveSGs(), 0);
    ASSERT_EQ(machine.ioctlAttempts.size(), 1u);
    EXPECT_EQ(machine.ioctlAttempts[0].fd, -1);
    EXPECT_EQ(machine.ioctlAttempts[0].request, static_cast<unsigned long>(SG_GET_SCSI_ID));
}

TEST(ScsiGenericScanTest, NodesNamedSgThatAreNoSgNodesAreLeftOut)
{
    host::FakeMachine machine;
    machine.addNode("/dev/sgx", 'c', nullptr);
    machine.addFile("/dev/sg.txt", "not a node");
    host::ScopedMachine scope{machine};
    SCSIGeneric sg;
    sg.setnumOfValidSgNodes();
    EXPECT_EQ(sg.getNumofActiveSGs(), 0);
    EXPECT_TRUE(machine.openDescriptors().empty());
}

TEST(ScsiGenericScanTest, LinksNamedSgAreNotOpened)
{
    host::FakeMachine machine;
    addSgNode(machine, "/dev/sg0", 1, 0, 0, 0, 5);
    machine.addLink("/dev/sgcdrom", "sg0");
    host::ScopedMachine scope{machine};
    SCSIGeneric sg;
    sg.setnumOfValidSgNodes();
    EXPECT_EQ(machine.opens(), std::vector<std::string>{"/dev/sg0"});
    EXPECT_EQ(sg.getNumofActiveSGs(), 1);
}

TEST(ScsiGenericScanTest, TwoScansKeepTheEntriesOfVanishedNodesAndTheOldRecords)
{
    host::FakeMachine machine;
    auto first = addSgNode(machine, "/dev/sg0", 1, 0, 0, 0, 5);
    auto second = addSgNode(machine, "/dev/sg1", 2, 0, 0, 0, 0);
    host::ScopedMachine scope{machine};
    SCSIGeneric sg;
    sg.setnumOfValidSgNodes();
    EXPECT_EQ(sg.getNumofActiveSGs(), 2);

    // sg1 no longer answers, and sg0 now has another address.
    second->refuse(SG_GET_SCSI_ID, ENODEV);
    host::ScsiAddress moved;
    moved.host = 9;
    moved.type = 5;
    first->setAddress(moved);
    sg.setnumOfValidSgNodes();
    EXPECT_EQ(sg.getNumofActiveSGs(), 2);
    EXPECT_EQ(sg.getSgfromMap(0, 2, 0, 0, 0), "/dev/sg1");
    EXPECT_EQ(sg.getSgfromMap(5, 1, 0, 0, 0), "/dev/sg0");
    EXPECT_EQ(sg.getSgfromMap(5, 9, 0, 0, 0), "");
}

TEST(ScsiGenericScanTest, ABusyNodeAtTheSecondScanKeepsItsEntry)
{
    host::FakeMachine machine;
    addSgNode(machine, "/dev/sg0", 1, 0, 0, 0, 5);
    host::ScopedMachine scope{machine};
    SCSIGeneric sg;
    sg.setnumOfValidSgNodes();
    machine.denyOpen("/dev/sg0", EBUSY);
    sg.setnumOfValidSgNodes();
    EXPECT_EQ(sg.getNumofActiveSGs(), 1);
    EXPECT_EQ(sg.getSgfromMap(5, 1, 0, 0, 0), "/dev/sg0");
}

namespace {

// An sg node whose driver writes only the host, channel and id of the record.
class PartialAddressNode : public host::DeviceModel {
public:
    PartialAddressNode(int host, int channel, int id)
    {
        answer(SG_GET_SCSI_ID, "SG_GET_SCSI_ID", [=](host::FakeMachine&, void* argument, host::IoctlRecord&) {
            auto* record = static_cast<sg_scsi_id*>(argument);
            record->host_no = host;
            record->channel = channel;
            record->scsi_id = id;
            return 0;
        });
    }
};

} // namespace

TEST(ScsiGenericScanTest, TheRecordIsZeroedOnceForTheWholeWalkNotForEachNode)
{
    host::FakeMachine machine;
    addSgNode(machine, "/dev/sg0", 1, 0, 0, 7, 5);
    machine.addNode("/dev/sg1", 'c', std::make_shared<PartialAddressNode>(2, 0, 3));
    host::ScopedMachine scope{machine};
    SCSIGeneric sg;
    sg.setnumOfValidSgNodes();
    // sg1's LUN and type are those that sg0 left in the record.
    EXPECT_EQ(sg.getSgfromMap(5, 2, 3, 7, 0), "/dev/sg1");
    EXPECT_EQ(sg.getSgfromMap(0, 2, 3, 0, 0), "");
}

TEST(ScsiGenericScanTest, APartialRecordFirstInTheWalkHasZeroesWhereNothingWasWritten)
{
    host::FakeMachine machine;
    machine.addNode("/dev/sg0", 'c', std::make_shared<PartialAddressNode>(2, 1, 3));
    host::ScopedMachine scope{machine};
    SCSIGeneric sg;
    sg.setnumOfValidSgNodes();
    EXPECT_EQ(sg.getSgfromMap(0, 2, 3, 0, 1), "/dev/sg0");
}

TEST(ScsiGenericScanTest, AFailedListingCountsZeroWithoutWaitingAndKeepsTheMap)
{
    RecordingMachine machine;
    addSgNode(machine, "/dev/sg0", 1, 0, 0, 0, 5);
    host::ScopedMachine scope{machine};
    SCSIGeneric sg;
    sg.setnumOfValidSgNodes();
    ASSERT_EQ(sg.getNumofActiveSGs(), 1);
    machine.failures["scandir"] = {ENOMEM};
    sg.setnumOfValidSgNodes();
    EXPECT_EQ(sg.getNumofActiveSGs(), 0);
    // The count says 0, the map still knows the node.
    EXPECT_EQ(sg.getSgfromMap(5, 1, 0, 0, 0), "/dev/sg0");
    EXPECT_TRUE(machine.sleeps().empty());
    EXPECT_EQ(machine.opens().size(), 1u);
}

TEST(ScsiGenericScanTest, AFailedSecondListingCountsAsNoEntries)
{
    RecordingMachine machine;
    machine.failures["scandir"] = {0, ENOMEM};
    host::ScopedMachine scope{machine};
    SCSIGeneric sg;
    sg.setnumOfValidSgNodes();
    EXPECT_EQ(sg.getNumofActiveSGs(), 0);
    EXPECT_EQ(machine.sleeps().size(), 1u);
    EXPECT_TRUE(machine.opens().empty());
}

TEST(ScsiGenericScanTest, TheCountIsZeroBeforeAnyScan)
{
    host::FakeMachine machine;
    addSgNode(machine, "/dev/sg0", 1, 0, 0, 0, 5);
    host::ScopedMachine scope{machine};
    SCSIGeneric sg;
    EXPECT_EQ(sg.getNumofActiveSGs(), 0);
    EXPECT_EQ(sg.getSgfromMap(5, 1, 0, 0, 0), "");
}

// --- The map ---------------------------------------------------------------------------------

TEST(ScsiGenericMapTest, TheArgumentsAreTypeHostIdLunAndChannelLast)
{
    auto machine = labServer();
    host::ScopedMachine scope{*machine};
    SCSIGeneric sg;
    sg.setnumOfValidSgNodes();
    // sg2: host 3, channel 2, id 0, LUN 0, type 0.
    EXPECT_EQ(sg.getSgfromMap(0, 3, 0, 0, 2), "/dev/sg2");
    EXPECT_EQ(sg.getSgfromMap(0, 3, 2, 0, 0), "");
    EXPECT_EQ(sg.getSgfromMap(2, 3, 0, 0, 0), "");
    EXPECT_EQ(sg.getSgfromMap(3, 0, 0, 0, 2), "");
}

TEST(ScsiGenericMapTest, AChannelThatDoesNotMatchGivesNothingEvenIfTheOtherFourDo)
{
    auto machine = labServer();
    host::ScopedMachine scope{*machine};
    SCSIGeneric sg;
    sg.setnumOfValidSgNodes();
    // sg1: host 2, channel 0, id 2, LUN 0, type 5.
    EXPECT_EQ(sg.getSgfromMap(5, 2, 2, 0, 0), "/dev/sg1");
    EXPECT_EQ(sg.getSgfromMap(5, 2, 2, 0, 1), "");
    EXPECT_EQ(sg.getSgfromMap(0, 2, 2, 0, 0), "");
    EXPECT_EQ(sg.getSgfromMap(5, 3, 2, 0, 0), "");
    EXPECT_EQ(sg.getSgfromMap(5, 2, 0, 0, 0), "");
    EXPECT_EQ(sg.getSgfromMap(5, 2, 2, 1, 0), "");
}

TEST(ScsiGenericMapTest, OfTwoNodesWithOneAddressTheFirstPathWins)
{
    host::FakeMachine machine;
    addSgNode(machine, "/dev/sg2", 4, 0, 0, 0, 5);
    addSgNode(machine, "/dev/sg10", 4, 0, 0, 0, 5);
    host::ScopedMachine scope{machine};
    SCSIGeneric sg;
    sg.setnumOfValidSgNodes();
    EXPECT_EQ(sg.getNumofActiveSGs(), 2);
    EXPECT_EQ(sg.getSgfromMap(5, 4, 0, 0, 0), "/dev/sg10");
}

// --- scsiGenericIoctl ------------------------------------------------------------------------

TEST_F(ScsiGenericTest, GetScsiIdFillsTheRecordWhateverTheOpcodeAndLength)
{
    auto model = addSgNode(machine, "/dev/sg0", 3, 2, 1, 4, 5);
    model->setQueue(2, 32);
    int fd = openNode("/dev/sg0");
    sg_scsi_id record;
    std::memset(&record, 0xEE, sizeof record);
    errno = EIO;
    EXPECT_EQ(sg.scsiGenericIoctl(fd, SG_GET_SCSI_ID, 0x12, &record, 999), 0);
    EXPECT_EQ(errno, 0);
    EXPECT_EQ(record.host_no, 3);
    EXPECT_EQ(record.channel, 2);
    EXPECT_EQ(record.scsi_id, 1);
    EXPECT_EQ(record.lun, 4);
    EXPECT_EQ(record.scsi_type, 5);
    EXPECT_EQ(record.h_cmd_per_lun, 2);
    EXPECT_EQ(record.d_queue_depth, 32);
    EXPECT_EQ(machine.ioctlNames("/dev/sg0"), std::vector<std::string>{"SG_GET_SCSI_ID"});
    EXPECT_TRUE(model->headers().empty());
}

TEST_F(ScsiGenericTest, GetScsiIdOnABadDescriptorFails)
{
    sg_scsi_id record = {};
    EXPECT_EQ(sg.scsiGenericIoctl(-1, SG_GET_SCSI_ID, 0, &record, 0), -1);
    EXPECT_EQ(errno, EBADF);
}

TEST_F(ScsiGenericTest, AnyOtherCodeReturnsMinusTwoAndTouchesNothing)
{
    addSgNode(machine, "/dev/sg0", 0, 0, 0, 0, 5);
    int fd = openNode("/dev/sg0");
    unsigned char buffer[36];
    for (int code : {SG_EMULATED_HOST, SCSI_IOCTL_PROBE_HOST, 0, -1, 0x2284}) {
        std::memset(buffer, 0xAB, sizeof buffer);
        errno = 77;
        EXPECT_EQ(sg.scsiGenericIoctl(fd, code, 0x12, buffer, 36), -2) << code;
        EXPECT_EQ(errno, 77);
        EXPECT_EQ(buffer[0], 0xAB);
        EXPECT_EQ(buffer[35], 0xAB);
    }
    EXPECT_TRUE(machine.ioctls().empty());
    EXPECT_TRUE(machine.ioctlAttempts.empty());
}

TEST_F(ScsiGenericTest, InquiryHeaderAndBlockByteForByte)
{
    auto model = addSgNode(machine, "/dev/sg0", 1, 0, 0, 0, 5);
    host::InquiryFields fields;
    fields.type = 5;
    fields.removable = true;
    fields.vendor = "QEMU";
    fields.product = "QEMU DVD-ROM";
    fields.revision = "2.5+";
    model->setInquiry(fields);
    int fd = openNode("/dev/sg0");
    unsigned char buffer[36] = {};
    EXPECT_EQ(sg.scsiGenericIoctl(fd, SG_IO, 0x12, buffer, 36), 0);

    ASSERT_EQ(model->headers().size(), 1u);
    const sg_io_hdr_t& h = model->headers()[0];
    EXPECT_EQ(h.interface_id, 'S');
    EXPECT_EQ(h.dxfer_direction, SG_DXFER_FROM_DEV);
    EXPECT_EQ(h.dxfer_direction, -3);
    EXPECT_EQ(h.mx_sb_len, 32);
    EXPECT_EQ(h.dxfer_len, 36u);
    EXPECT_EQ(h.dxferp, static_cast<void*>(buffer));
    EXPECT_NE(h.sbp, nullptr);
    EXPECT_EQ(h.timeout, 60000u);
    EXPECT_EQ(h.cmd_len, 6);
    EXPECT_EQ(h.iovec_count, 0);
    EXPECT_EQ(h.flags, 0u);
    EXPECT_EQ(h.pack_id, 0);
    EXPECT_EQ(h.usr_ptr, nullptr);

    ASSERT_EQ(machine.ioctls().size(), 1u);
    EXPECT_EQ(machine.ioctls()[0].name, "SG_IO INQUIRY");
    EXPECT_EQ(machine.ioctls()[0].input, bytes({0x12, 0, 0, 0, 36, 0}));

    InquiryReading reading = readInquiry(buffer, sizeof buffer);
    EXPECT_EQ(reading.peripheralType, 5);
    EXPECT_TRUE(reading.removable);
    EXPECT_EQ(reading.vendor, "QEMU    ");
    EXPECT_EQ(reading.product, "QEMU DVD-ROM    ");
    EXPECT_EQ(reading.revision, "2.5+");
}

TEST_F(ScsiGenericTest, TheInquiryLengthByteIsTheLowByteOfTheLength)
{
    addSgNode(machine, "/dev/sg0", 1, 0, 0, 0, 5);
    int fd = openNode("/dev/sg0");
    unsigned char buffer[300] = {};
    EXPECT_EQ(sg.scsiGenericIoctl(fd, SG_IO, 0x12, buffer, 300), 0);
    EXPECT_EQ(machine.ioctls()[0].input, bytes({0x12, 0, 0, 0, 300 & 0xFF, 0}));
    EXPECT_EQ(std::dynamic_pointer_cast<SgModel>(machine.model("/dev/sg0"))->headers()[0].dxfer_len, 300u);
}

TEST_F(ScsiGenericTest, ModeSenseHeaderAndBlockByteForByte)
{
    auto model = node(0x5A, {SgReply::good(std::string(34, '\x11'))});
    int fd = openNode("/dev/sg0");
    unsigned char buffer[36] = {};
    EXPECT_EQ(sg.scsiGenericIoctl(fd, SG_IO, 0x5A, buffer, 36), 0);
    ASSERT_EQ(machine.ioctls().size(), 1u);
    EXPECT_EQ(machine.ioctls()[0].name, "SG_IO MODE SENSE(10)");
    EXPECT_EQ(machine.ioctls()[0].input, bytes({0x5A, 0x08, 0x2A, 0, 0, 0, 0, 0, 36, 0}));
    const sg_io_hdr_t& h = model->headers()[0];
    EXPECT_EQ(h.cmd_len, 10);
    EXPECT_EQ(h.interface_id, 'S');
    EXPECT_EQ(h.dxfer_direction, SG_DXFER_FROM_DEV);
    EXPECT_EQ(h.mx_sb_len, 32);
    EXPECT_EQ(h.dxfer_len, 36u);
    EXPECT_EQ(h.timeout, 60000u);
    EXPECT_EQ(buffer[33], 0x11);
    EXPECT_EQ(buffer[34], 0);
}

TEST_F(ScsiGenericTest, TheModeSenseLengthGoesInBytesSevenAndEight)
{
    node(0x5A, {SgReply::good()});
    int fd = openNode("/dev/sg0");
    std::vector<unsigned char> buffer(0x1234);
    EXPECT_EQ(sg.scsiGenericIoctl(fd, SG_IO, 0x5A, buffer.data(), 0x1234), 0);
    EXPECT_EQ(machine.ioctls()[0].input, bytes({0x5A, 0x08, 0x2A, 0, 0, 0, 0, 0x12, 0x34, 0}));
}

TEST_F(ScsiGenericTest, AnyOtherOpcodeSendsNoBlockAndTheDriverRefusesIt)
{
    auto model = addSgNode(machine, "/dev/sg0", 1, 0, 0, 0, 5);
    int fd = openNode("/dev/sg0");
    unsigned char buffer[8] = {};
    for (int opcode : {0x25, 0x00, 0x1A, 0x4A}) {
        EXPECT_EQ(sg.scsiGenericIoctl(fd, SG_IO, opcode, buffer, 8), -1) << opcode;
        EXPECT_EQ(errno, EMSGSIZE);
    }
    ASSERT_EQ(model->headers().size(), 4u);
    for (const auto& h : model->headers()) {
        EXPECT_EQ(h.cmd_len, 0);
        EXPECT_EQ(h.cmdp, nullptr);
        EXPECT_EQ(h.dxfer_len, 8u);
    }
    for (const auto& event : machine.ioctls()) {
        EXPECT_EQ(event.name, "SG_IO");
        EXPECT_EQ(event.input, "");
    }
}

TEST_F(ScsiGenericTest, ACheckConditionWithNotReadyGivesTwo)
{
    node(0x12, {SgReply::check(2, 0x3A), SgReply::check(2, 0x04, 0x01)});
    int fd = openNode("/dev/sg0");
    unsigned char buffer[36] = {};
    EXPECT_EQ(sg.scsiGenericIoctl(fd, SG_IO, 0x12, buffer, 36), 2);
    EXPECT_EQ(sg.scsiGenericIoctl(fd, SG_IO, 0x12, buffer, 36), 2);
}

TEST_F(ScsiGenericTest, ACheckConditionWithAnotherKeyCountsAsSuccess)
{
    node(0x5A, {SgReply::check(5, 0x24), SgReply::check(6, 0x28), SgReply::check(3, 0x11)});
    int fd = openNode("/dev/sg0");
    unsigned char buffer[36] = {};
    for (int i = 0; i < 3; ++i) {
        EXPECT_EQ(sg.scsiGenericIoctl(fd, SG_IO, 0x5A, buffer, 36), 0) << i;
    }
    for (unsigned char b : buffer) {
        EXPECT_EQ(b, 0);
    }
}

TEST_F(ScsiGenericTest, DescriptorSenseIsReadAtByteTwoAllTheSame)
{
    // Descriptor format keeps the key in byte 1 and the code in byte 2: the
    // NOT READY of the first is missed, and the code 0x02 of the second reads
    // as NOT READY.
    node(0x12, {SgReply::checkDescriptor(2, 0x3A), SgReply::checkDescriptor(5, 0x02)});
    int fd = openNode("/dev/sg0");
    unsigned char buffer[36] = {};
    EXPECT_EQ(sg.scsiGenericIoctl(fd, SG_IO, 0x12, buffer, 36), 0);
    EXPECT_EQ(sg.scsiGenericIoctl(fd, SG_IO, 0x12, buffer, 36), 2);
}

TEST_F(ScsiGenericTest, AFailedIoctlGivesItsResult)
{
    auto model = node(0x12, {SgReply::failure(EIO)});
    int fd = openNode("/dev/sg0");
    unsigned char buffer[36] = {};
    EXPECT_EQ(sg.scsiGenericIoctl(fd, SG_IO, 0x12, buffer, 36), -1);
    EXPECT_EQ(errno, EIO);
    model->refuse(SG_IO, ENOTTY);
    EXPECT_EQ(sg.scsiGenericIoctl(fd, SG_IO, 0x12, buffer, 36), -1);
    EXPECT_EQ(errno, ENOTTY);
    EXPECT_EQ(sg.scsiGenericIoctl(-1, SG_IO, 0x12, buffer, 36), -1);
    EXPECT_EQ(errno, EBADF);
}

TEST_F(ScsiGenericTest, AStatusWithoutSenseDataGivesZero)
{
    SgReply busy;
    busy.status = 0x08;
    node(0x12, {busy});
    int fd = openNode("/dev/sg0");
    unsigned char buffer[36] = {};
    EXPECT_EQ(sg.scsiGenericIoctl(fd, SG_IO, 0x12, buffer, 36), 0);
}

TEST_F(ScsiGenericTest, GarbageSenseAndAnyReportedLengthAreHarmless)
{
    SgReply garbage;
    garbage.status = 0xFF;
    garbage.sense = std::string(64, '\xFF');
    garbage.senseLength = 255;
    SgReply lengthZero = SgReply::check(2, 0x3A);
    lengthZero.senseLength = 0;
    node(0x12, {garbage, lengthZero});
    int fd = openNode("/dev/sg0");
    unsigned char buffer[36] = {};
    // Key 0xF: not NOT READY.
    EXPECT_EQ(sg.scsiGenericIoctl(fd, SG_IO, 0x12, buffer, 36), 0);
    // The length is not looked at: NOT READY all the same.
    EXPECT_EQ(sg.scsiGenericIoctl(fd, SG_IO, 0x12, buffer, 36), 2);
}

TEST_F(ScsiGenericTest, ShortInquiryDataLeaveTheRestOfTheBufferZero)
{
    node(0x12, {SgReply::good(bytes({0x05, 0x80, 0x05, 0x02, 31}))});
    int fd = openNode("/dev/sg0");
    unsigned char buffer[36] = {};
    EXPECT_EQ(sg.scsiGenericIoctl(fd, SG_IO, 0x12, buffer, 36), 0);
    InquiryReading reading = readInquiry(buffer, sizeof buffer);
    EXPECT_EQ(reading.peripheralType, 5);
    EXPECT_TRUE(reading.removable);
    EXPECT_EQ(reading.vendor, "");
    EXPECT_EQ(reading.product, "");
    EXPECT_EQ(reading.revision, "");
}

// --- checkSenseBuffer ------------------------------------------------------------------------

TEST_F(ScsiGenericTest, CheckSenseBufferReadsTheLowFourBitsOfTheThirdByte)
{
    unsigned char sense[32] = {0x70, 0, 0x02};
    EXPECT_EQ(sg.checkSenseBuffer(sense, 18), 2);
    sense[2] = 0x82; // filemark
    EXPECT_EQ(sg.checkSenseBuffer(sense, 18), 2);
    sense[2] = 0x22; // incorrect length
    EXPECT_EQ(sg.checkSenseBuffer(sense, 18), 2);
    sense[2] = 0x05;
    EXPECT_EQ(sg.checkSenseBuffer(sense, 18), 0);
    sense[2] = 0x00;
    EXPECT_EQ(sg.checkSenseBuffer(sense, 18), 0);
    // Descriptor format: the key in byte 1 is not seen.
    unsigned char descriptor[32] = {0x72, 0x02, 0x3A};
    EXPECT_EQ(sg.checkSenseBuffer(descriptor, 8), 0);
}

TEST_F(ScsiGenericTest, CheckSenseBufferDoesNotLookAtTheLength)
{
    unsigned char sense[32] = {0x70, 0, 0x02};
    for (int length : {0, 1, 2, -5, 1000}) {
        EXPECT_EQ(sg.checkSenseBuffer(sense, length), 2) << length;
    }
    EXPECT_EQ(sg.checkSenseBuffer(nullptr, 32), 0);
}

// --- TEST UNIT READY ----------------------------------------------------------------------------

TEST_F(ScsiGenericTest, TestUnitReadyFrameByteForByte)
{
    auto model = node(0x00, {SgReply::good()});
    int fd = openNode("/dev/sg0");
    EXPECT_EQ(sg.doTestUnitReady(fd), 0);
    ASSERT_EQ(machine.ioctls().size(), 1u);
    EXPECT_EQ(machine.ioctls()[0].name, "SG_IO TEST UNIT READY");
    EXPECT_EQ(machine.ioctls()[0].input, bytes({0, 0, 0, 0, 0, 0}));
    const sg_io_hdr_t& h = model->headers()[0];
    EXPECT_EQ(h.interface_id, 'S');
    EXPECT_EQ(h.dxfer_direction, SG_DXFER_FROM_DEV);
    EXPECT_EQ(h.mx_sb_len, 64);
    EXPECT_EQ(h.dxfer_len, 8u);
    EXPECT_NE(h.dxferp, nullptr);
    EXPECT_NE(h.sbp, nullptr);
    EXPECT_EQ(h.timeout, 60000u);
    EXPECT_EQ(h.cmd_len, 6);
    EXPECT_EQ(h.iovec_count, 0);
    EXPECT_EQ(h.flags, 0u);
}

TEST_F(ScsiGenericTest, ADriveWithoutAMediumGives123)
{
    auto model = node(0x00, {SgReply::check(2, 0x3A)});
    int fd = openNode("/dev/sg0");
    EXPECT_EQ(sg.doTestUnitReady(fd), 123);
    EXPECT_EQ(sg.doTestUnitReady(fd), ENOMEDIUM);
    EXPECT_EQ(model->timesSent(0x00), 2);
}

TEST_F(ScsiGenericTest, AFreshMediumReportingTheChangeOnceGivesZeroAfterTheRepeat)
{
    auto model = node(0x00, {SgReply::check(6, 0x28), SgReply::good()});
    int fd = openNode("/dev/sg0");
    EXPECT_EQ(sg.doTestUnitReady(fd), 0);
    EXPECT_EQ(model->timesSent(0x00), 2);
    EXPECT_EQ(machine.ioctlNames("/dev/sg0"),
              (std::vector<std::string>{"SG_IO TEST UNIT READY", "SG_IO TEST UNIT READY"}));
    EXPECT_EQ(machine.ioctls()[1].input, bytes({0, 0, 0, 0, 0, 0}));
}

TEST_F(ScsiGenericTest, TheChangeIsRepeatedOnlyOnceWhateverTheRepeatAnswers)
{
    auto model = node(0x00, {SgReply::check(6, 0x28), SgReply::check(2, 0x3A)});
    int fd = openNode("/dev/sg0");
    EXPECT_EQ(sg.doTestUnitReady(fd), 0);
    EXPECT_EQ(model->timesSent(0x00), 2);
}

TEST_F(ScsiGenericTest, IllegalRequestGivesMinusOneWhateverTheCode)
{
    node(0x00, {SgReply::check(5, 0x20), SgReply::check(5, 0x3A), SgReply::check(5, 0x28)});
    int fd = openNode("/dev/sg0");
    EXPECT_EQ(sg.doTestUnitReady(fd), -1);
    EXPECT_EQ(sg.doTestUnitReady(fd), -1);
    EXPECT_EQ(sg.doTestUnitReady(fd), -1);
}

TEST_F(ScsiGenericTest, IncompatibleCorruptedAndOtherCodesGiveZero)
{
    auto model = node(0x00, {SgReply::check(3, 0x30), SgReply::check(3, 0x31), SgReply::check(2, 0x04, 0x01)});
    int fd = openNode("/dev/sg0");
    EXPECT_EQ(sg.doTestUnitReady(fd), 0);
    EXPECT_EQ(sg.doTestUnitReady(fd), 0);
    EXPECT_EQ(sg.doTestUnitReady(fd), 0);
    EXPECT_EQ(model->timesSent(0x00), 3);
}

TEST_F(ScsiGenericTest, AFailedTestUnitReadyGivesTheErrno)
{
    auto model = node(0x00, {SgReply::failure(EIO)});
    int fd = openNode("/dev/sg0");
    EXPECT_EQ(sg.doTestUnitReady(fd), EIO);
    model->refuse(SG_IO, ENOTTY);
    EXPECT_EQ(sg.doTestUnitReady(fd), ENOTTY);
    EXPECT_EQ(sg.doTestUnitReady(-1), EBADF);
}

TEST_F(ScsiGenericTest, DescriptorFormatSenseIsReadByTheMediumCommands)
{
    auto model = node(0x00, {SgReply::checkDescriptor(2, 0x3A), SgReply::checkDescriptor(6, 0x28),
                             SgReply::good()});
    int fd = openNode("/dev/sg0");
    EXPECT_EQ(sg.doTestUnitReady(fd), 123);
    EXPECT_EQ(sg.doTestUnitReady(fd), 0);
    EXPECT_EQ(model->timesSent(0x00), 3);
}

TEST_F(ScsiGenericTest, FixedSenseOfTwelveBytesHasTheCodeZero)
{
    node(0x00, {withSenseLength(SgReply::check(2, 0x3A), 12), withSenseLength(SgReply::check(2, 0x3A), 13)});
    int fd = openNode("/dev/sg0");
    EXPECT_EQ(sg.doTestUnitReady(fd), 0);
    EXPECT_EQ(sg.doTestUnitReady(fd), 123);
}

TEST_F(ScsiGenericTest, SenseOfFewerThanThreeBytesIsNotRead)
{
    node(0x00, {withSenseLength(SgReply::check(5, 0x3A), 2), withSenseLength(SgReply::check(5, 0x3A), 0),
                withSenseLength(SgReply::check(5, 0x3A), 3)});
    int fd = openNode("/dev/sg0");
    EXPECT_EQ(sg.doTestUnitReady(fd), 0);
    EXPECT_EQ(sg.doTestUnitReady(fd), 0);
    EXPECT_EQ(sg.doTestUnitReady(fd), -1);
}

TEST_F(ScsiGenericTest, ASenseLengthBeyondTheBufferIsHarmless)
{
    node(0x00, {withSenseLength(SgReply::check(2, 0x3A), 255)});
    int fd = openNode("/dev/sg0");
    EXPECT_EQ(sg.doTestUnitReady(fd), 123);
}

TEST_F(ScsiGenericTest, GarbageSenseGivesZero)
{
    SgReply descriptorLike;
    descriptorLike.status = 2;
    descriptorLike.sense = std::string(64, '\xFF');
    SgReply fixedLike = descriptorLike;
    fixedLike.sense = std::string(64, '\xFD');
    SgReply longer = descriptorLike;
    longer.sense = std::string(200, '\x72');
    node(0x00, {descriptorLike, fixedLike, longer});
    int fd = openNode("/dev/sg0");
    EXPECT_EQ(sg.doTestUnitReady(fd), 0);
    EXPECT_EQ(sg.doTestUnitReady(fd), 0);
    EXPECT_EQ(sg.doTestUnitReady(fd), 0);
}

TEST_F(ScsiGenericTest, SenseIsOnlyReadUnderCheckCondition)
{
    SgReply busy = SgReply::check(2, 0x3A);
    busy.status = 0x08;
    node(0x00, {busy});
    int fd = openNode("/dev/sg0");
    EXPECT_EQ(sg.doTestUnitReady(fd), 0);
}

// --- READ CAPACITY ----------------------------------------------------------------------------

TEST_F(ScsiGenericTest, ReadCapacityFrameByteForByte)
{
    auto model = node(0x25, {SgReply::good(host::capacityData(99, 512))});
    int fd = openNode("/dev/sg0");
    int blocks = 0;
    EXPECT_EQ(sg.doReadCapacity(fd, blocks), 0);
    EXPECT_EQ(blocks, 100);
    ASSERT_EQ(machine.ioctls().size(), 1u);
    EXPECT_EQ(machine.ioctls()[0].name, "SG_IO READ CAPACITY");
    EXPECT_EQ(machine.ioctls()[0].input, bytes({0x25, 0, 0, 0, 0, 0, 0, 0, 0, 0}));
    const sg_io_hdr_t& h = model->headers()[0];
    EXPECT_EQ(h.interface_id, 'S');
    EXPECT_EQ(h.dxfer_direction, SG_DXFER_FROM_DEV);
    EXPECT_EQ(h.mx_sb_len, 64);
    EXPECT_EQ(h.dxfer_len, 8u);
    EXPECT_EQ(h.timeout, 60000u);
    EXPECT_EQ(h.cmd_len, 10);
}

TEST_F(ScsiGenericTest, BlocksAreTheBigEndianLastAddressPlusOne)
{
    node(0x25, {SgReply::good(bytes({1, 2, 3, 4, 0, 0, 8, 0})), SgReply::good(bytes({1, 2, 3, 4, 0, 0, 2, 0}))});
    int fd = openNode("/dev/sg0");
    int blocks = 0;
    EXPECT_EQ(sg.doReadCapacity(fd, blocks), 0);
    EXPECT_EQ(blocks, 0x01020305);
    // The block length is not read.
    EXPECT_EQ(sg.doReadCapacity(fd, blocks), 0);
    EXPECT_EQ(blocks, 0x01020305);
}

TEST_F(ScsiGenericTest, TheHighestAddressWrapsToZero)
{
    node(0x25, {SgReply::good(bytes({0xFF, 0xFF, 0xFF, 0xFF, 0, 0, 2, 0})),
                SgReply::good(bytes({0x7F, 0xFF, 0xFF, 0xFF, 0, 0, 2, 0}))});
    int fd = openNode("/dev/sg0");
    int blocks = 5;
    EXPECT_EQ(sg.doReadCapacity(fd, blocks), 0);
    EXPECT_EQ(blocks, 0);
    EXPECT_EQ(sg.doReadCapacity(fd, blocks), 0);
    EXPECT_EQ(blocks, static_cast<int>(0x80000000u));
}

TEST_F(ScsiGenericTest, ShortCapacityDataReadAsZeroes)
{
    node(0x25, {SgReply::good(bytes({0, 1})), SgReply::good(), SgReply::good(std::string(64, '\x01'))});
    int fd = openNode("/dev/sg0");
    int blocks = 0;
    EXPECT_EQ(sg.doReadCapacity(fd, blocks), 0);
    EXPECT_EQ(blocks, 0x00010001);
    EXPECT_EQ(sg.doReadCapacity(fd, blocks), 0);
    EXPECT_EQ(blocks, 1);
    // More than eight bytes: cut to the eight of the buffer.
    EXPECT_EQ(sg.doReadCapacity(fd, blocks), 0);
    EXPECT_EQ(blocks, 0x01010102);
}

TEST_F(ScsiGenericTest, AnotherCheckConditionLeavesOneBlockAndSuccess)
{
    node(0x25, {SgReply::check(3, 0x11), withSenseLength(SgReply::check(2, 0x3A), 2)});
    int fd = openNode("/dev/sg0");
    int blocks = 77;
    EXPECT_EQ(sg.doReadCapacity(fd, blocks), 0);
    EXPECT_EQ(blocks, 1);
    blocks = 77;
    EXPECT_EQ(sg.doReadCapacity(fd, blocks), 0);
    EXPECT_EQ(blocks, 1);
}

TEST_F(ScsiGenericTest, IllegalRequestGivesMinusOneAndLeavesTheBlocks)
{
    node(0x25, {SgReply::check(5, 0x24)});
    int fd = openNode("/dev/sg0");
    int blocks = 77;
    EXPECT_EQ(sg.doReadCapacity(fd, blocks), -1);
    EXPECT_EQ(blocks, 77);
}

TEST_F(ScsiGenericTest, NoMediumIncompatibleAndCorruptedGiveTheirCodes)
{
    node(0x25, {SgReply::check(2, 0x3A), SgReply::check(3, 0x30), SgReply::check(3, 0x31)});
    int fd = openNode("/dev/sg0");
    int blocks = 77;
    EXPECT_EQ(sg.doReadCapacity(fd, blocks), 0x3A);
    EXPECT_EQ(sg.doReadCapacity(fd, blocks), 0x30);
    EXPECT_EQ(sg.doReadCapacity(fd, blocks), 0x31);
    EXPECT_EQ(blocks, 77);
}

TEST_F(ScsiGenericTest, AMediumChangeIsRepeatedAndTheSecondAnswerCounts)
{
    auto model = node(0x25, {SgReply::check(6, 0x28), SgReply::good(host::capacityData(2879, 512))});
    int fd = openNode("/dev/sg0");
    int blocks = 0;
    EXPECT_EQ(sg.doReadCapacity(fd, blocks), 0);
    EXPECT_EQ(blocks, 2880);
    EXPECT_EQ(model->timesSent(0x25), 2);
}

TEST_F(ScsiGenericTest, AFailedReadCapacityGivesMinusOneAndLeavesTheBlocks)
{
    auto model = node(0x25, {SgReply::failure(EIO)});
    int fd = openNode("/dev/sg0");
    int blocks = 77;
    EXPECT_EQ(sg.doReadCapacity(fd, blocks), -1);
    EXPECT_EQ(blocks, 77);
    model->refuse(SG_IO, EPERM);
    EXPECT_EQ(sg.doReadCapacity(fd, blocks), -1);
    EXPECT_EQ(sg.doReadCapacity(-1, blocks), -1);
    EXPECT_EQ(blocks, 77);
}

// --- isEmulated ----------------------------------------------------------------------------------

TEST_F(ScsiGenericTest, IsEmulatedAsksTheFlagThenTheHostTextWith250BytesOfRoom)
{
    auto model = addSgNode(machine, "/dev/sg0", 0, 0, 0, 0, 5);
    model->setProbeHost("SCSI emulation for USB Mass Storage devices");
    int fd = openNode("/dev/sg0");
    EXPECT_EQ(sg.isEmulated(fd), SG_HOST_USB);
    EXPECT_EQ(machine.ioctlNames("/dev/sg0"),
              (std::vector<std::string>{"SG_EMULATED_HOST", "SCSI_IOCTL_PROBE_HOST"}));
    int room = 0;
    ASSERT_EQ(machine.ioctls()[1].input.size(), sizeof room);
    std::memcpy(&room, machine.ioctls()[1].input.data(), sizeof room);
    EXPECT_EQ(room, 250);
}

TEST_F(ScsiGenericTest, IsEmulatedLooksForIdeFirstThenUsbCaseSensitive)
{
    auto model = addSgNode(machine, "/dev/sg0", 0, 0, 0, 0, 5);
    int fd = openNode("/dev/sg0");
    const std::pair<const char*, int> cases[] = {
        {"ide-scsi IDE emulation", 0x101},
        {"SCSI emulation for USB Mass Storage devices", 0xC03},
        {"USB to IDE bridge", 0x101},
        {"ide-scsi", 0x100},
        {"usb-storage 1-1:1.0", 0x100},
        {"ata_piix", 0x100},
        {"", 0x100},
    };
    for (const auto& c : cases) {
        model->setProbeHost(c.first);
        EXPECT_EQ(sg.isEmulated(fd), c.second) << c.first;
    }
}

TEST_F(ScsiGenericTest, TheEmulatedFlagItselfIsNotUsed)
{
    auto model = addSgNode(machine, "/dev/sg0", 0, 0, 0, 0, 5);
    model->setProbeHost("sym-2.2.3");
    int fd = openNode("/dev/sg0");
    model->setEmulated(true);
    EXPECT_EQ(sg.isEmulated(fd), 0x100);
    model->setEmulated(false);
    EXPECT_EQ(sg.isEmulated(fd), 0x100);
}

TEST_F(ScsiGenericTest, AFailedEmulatedHostGivesMinusOneWithoutProbing)
{
    auto model = addSgNode(machine, "/dev/sg0", 0, 0, 0, 0, 5);
    model->setProbeHost("IDE");
    model->refuse(SG_EMULATED_HOST, ENOTTY);
    int fd = openNode("/dev/sg0");
    EXPECT_EQ(sg.isEmulated(fd), -1);
    EXPECT_EQ(machine.ioctlNames("/dev/sg0"), std::vector<std::string>{"SG_EMULATED_HOST"});
    EXPECT_EQ(sg.isEmulated(-1), -1);
}

TEST_F(ScsiGenericTest, AFailedProbeHostGivesMinusOne)
{
    auto model = addSgNode(machine, "/dev/sg0", 0, 0, 0, 0, 5);
    model->setProbeHost("IDE");
    model->refuse(SCSI_IOCTL_PROBE_HOST, EINVAL);
    int fd = openNode("/dev/sg0");
    EXPECT_EQ(sg.isEmulated(fd), -1);
}

TEST_F(ScsiGenericTest, AHostTextLongerThanTheRoomIsCutTo250)
{
    auto model = addSgNode(machine, "/dev/sg0", 0, 0, 0, 0, 5);
    int fd = openNode("/dev/sg0");
    model->setProbeHost(std::string(250, 'x') + "USB");
    EXPECT_EQ(sg.isEmulated(fd), 0x100);
    model->setProbeHost(std::string(247, 'x') + "USB" + std::string(100, 'y'));
    EXPECT_EQ(sg.isEmulated(fd), 0xC03);
    model->setProbeHost(std::string(248, 'x') + "IDE");
    EXPECT_EQ(sg.isEmulated(fd), 0x100);
}

TEST_F(ScsiGenericTest, AHostWithoutTextLeavesTheRoomNumberAndCountsAsOther)
{
    addSgNode(machine, "/dev/sg0", 0, 0, 0, 0, 5);
    int fd = openNode("/dev/sg0");
    EXPECT_EQ(sg.isEmulated(fd), 0x100);
}

namespace {

// A node whose SCSI_IOCTL_PROBE_HOST fills the whole buffer, room or not.
class FloodingHost : public host::DeviceModel {
public:
    explicit FloodingHost(char fill)
    {
        answer(SG_EMULATED_HOST, "SG_EMULATED_HOST", [](host::FakeMachine&, void*, host::IoctlRecord&) { return 0; });
        answer(SCSI_IOCTL_PROBE_HOST, "SCSI_IOCTL_PROBE_HOST",
               [fill](host::FakeMachine&, void* argument, host::IoctlRecord&) {
                   std::memset(argument, fill, 264);
                   return 1;
               });
    }
};

} // namespace

TEST_F(ScsiGenericTest, AHostTextWithoutAnyNulIsReadWithinTheBuffer)
{
    machine.addNode("/dev/sg0", 'c', std::make_shared<FloodingHost>('U'));
    machine.addNode("/dev/sg1", 'c', std::make_shared<FloodingHost>('I'));
    int usb = openNode("/dev/sg0");
    int ide = openNode("/dev/sg1");
    EXPECT_EQ(sg.isEmulated(usb), 0x100);
    EXPECT_EQ(sg.isEmulated(ide), 0x100);
}
