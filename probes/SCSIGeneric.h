// The door to the kernel's SCSI generic driver: loads its module, scans the
// sg nodes into a map from node path to SCSI address, and sends the few SCSI
// commands that the storage finders need through SG_IO. Beside it, the
// zt_sem_ family: a thin wrapper of the one System V semaphore that
// serialises sg node access between finders and between processes.
#pragma once

#include "frame/Export.h"

#include <map>
#include <scsi/sg.h>
#include <string>
#include <sys/sem.h>

// The semaphore functions. Results are those of semget, semctl and semop:
// an id or 0 on success, -1 with errno set on failure.
// The id of the one-semaphore set with this key, made if need be; its value
// is set to 1 every time, even while someone holds it. -1 on failure.
OSTRAND_API int zt_sem_create(int key);
// Removes the set. Nothing in the library calls it: the set outlives every process.
OSTRAND_API int zt_sem_free(int semid);
// Takes the semaphore (-1, SEM_UNDO), waiting as long as it takes.
OSTRAND_API int zt_sem_wait(int semid);
// Gives it back (+1, SEM_UNDO).
OSTRAND_API int zt_sem_relinquish(int semid);
// semop, repeated for as long as a signal interrupts it.
OSTRAND_API int zt_sem_semop_retry(int semid, struct sembuf* ops, int count);
// One line to the system log: "PID <pid> @ <seconds>.<microseconds>: " and
// the caller's format with its one argument. Nothing in the library calls it.
OSTRAND_API void zt_sem_print(char* format, char* argument);

namespace Vantrel {
namespace Ostrand {

// The System V key of the semaphore. Fixed: every process that loads the
// library meets the same set.
const int SCSI_GENERIC_SEM_KEY = 0x1FE101F;
// The time-out of every SG_IO command, in milliseconds.
const unsigned int SG_COMMAND_TIMEOUT_MS = 60000;

// What isEmulated tells of the host adapter.
const int SG_HOST_IDE = 0x101;   // its text contains "IDE"
const int SG_HOST_USB = 0xC03;   // not "IDE", but "USB"
const int SG_HOST_OTHER = 0x100; // neither

class OSTRAND_API SCSIGeneric {
public:
    // Creates (or attaches to) the semaphore, resetting it to 1, and on a 2.6
    // kernel loads the sg module.
    SCSIGeneric();
    // Only the empty map: no semaphore, no module.
    explicit SCSIGeneric(int);
    ~SCSIGeneric();

    int sempahore_lock();
    int sempahore_unlock();

    // Scans /dev/sg* into the map. The caller holds the semaphore.
    void setnumOfValidSgNodes();
    int getNumofActiveSGs();
    // The first node, in path order, with this address; empty if none. Note
    // the order: type first, channel last.
    std::string getSgfromMap(int scsi_type, int host_no, int scsi_id, int lun, int channel);

    // SG_GET_SCSI_ID into `buffer`, or SG_IO with INQUIRY (opcode 0x12) or
    // MODE SENSE(10) page 2A (opcode 0x5A) reading `length` bytes into
    // `buffer`; -2 for any other code.
    int scsiGenericIoctl(int fd, int ioctlCode, int opcode, void* buffer, int length);
    // 2 if the sense key at byte 2 is NOT READY, else 0. `length` is not read.
    int checkSenseBuffer(unsigned char* sense, int length);
    int doTestUnitReady(int fd);
    int doReadCapacity(int fd, int& blocks);
    // SG_HOST_IDE, SG_HOST_USB or SG_HOST_OTHER; -1 if an ioctl failed.
    int isEmulated(int fd);

private:
    SCSIGeneric(const SCSIGeneric&);
    SCSIGeneric& operator=(const SCSIGeneric&);

    void loadSgModule();

    int m_numOfValidSgNodes;
    std::map<std::string, sg_scsi_id> m_sgNodes;
    int m_semId;
    bool m_semLocked;
};

} // namespace Ostrand
} // namespace Vantrel
