#include "tools/Record.h"

#include "tools/Enumeration.h"
#include "tools/UsbReport.h"

#include "host/fake/MachineDirectory.h"
#include "host/record/RecordingMachine.h"
#include "host/record/RecordingWriter.h"

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <dirent.h>
#include <filesystem>
#include <memory>
#include <sys/stat.h>
#include <unistd.h>

namespace ostrand_tool {

using namespace Vantrel::Ostrand;

namespace {

const int kWritten = 0;
const int kFailed = 1;
const int kBadUse = 2;

// Whether the path can be the recording: absent, or an empty folder.
bool usable(const std::string& path, std::string& why)
{
    struct stat info;
    if (::stat(path.c_str(), &info) != 0) {
        return true;
    }
    if (!S_ISDIR(info.st_mode)) {
        why = path + " exists and is not a folder";
        return false;
    }
    DIR* directory = ::opendir(path.c_str());
    if (directory == nullptr) {
        why = path + " cannot be read: " + std::strerror(errno);
        return false;
    }
    bool empty = true;
    while (struct dirent* entry = ::readdir(directory)) {
        if (std::strcmp(entry->d_name, ".") != 0 && std::strcmp(entry->d_name, "..") != 0) {
            empty = false;
        }
    }
    ::closedir(directory);
    if (!empty) {
        why = path + " exists and is not empty; a recording goes into a new or empty folder";
    }
    return empty;
}

std::string joinedClasses(const std::vector<std::string>& classes)
{
    std::string text;
    for (const auto& name : classes) {
        text += (text.empty() ? "" : " ") + name;
    }
    return text;
}

std::string now()
{
    std::time_t seconds = std::time(nullptr);
    char text[64];
    std::strftime(text, sizeof text, "%Y-%m-%d %H:%M:%S UTC", std::gmtime(&seconds));
    return text;
}

// Signals that would end the process wait while the folder is written and
// renamed, so that an interruption leaves the whole recording or none.
class HeldSignals {
public:
    HeldSignals()
    {
        sigset_t held;
        sigemptyset(&held);
        for (int signal : {SIGINT, SIGTERM, SIGHUP, SIGQUIT}) {
            sigaddset(&held, signal);
        }
        sigprocmask(SIG_BLOCK, &held, &m_previous);
    }
    ~HeldSignals() { sigprocmask(SIG_SETMASK, &m_previous, nullptr); }
    HeldSignals(const HeldSignals&) = delete;
    HeldSignals& operator=(const HeldSignals&) = delete;

private:
    sigset_t m_previous;
};

// Writes into a hidden folder beside the target, then renames it.
int writeAtomically(const host::Recording& recording, const RecordRequest& request,
                    const host::RecordingHeader& header, std::ostream& err)
{
    std::filesystem::path target = std::filesystem::absolute(request.directory).lexically_normal();
    if (target.filename().empty()) {
        target = target.parent_path();
    }
    std::string pattern = (target.parent_path() / ("." + target.filename().string() + ".partial-XXXXXX")).string();
    std::vector<char> name(pattern.begin(), pattern.end());
    name.push_back('\0');
    HeldSignals held;
    if (::mkdtemp(name.data()) == nullptr) {
        err << "ostrand: cannot make a folder beside " << request.directory << ": " << std::strerror(errno) << "\n";
        return kFailed;
    }
    std::string temporary = name.data();
    try {
        ::chmod(temporary.c_str(), 0755);
        host::writeRecording(recording, temporary, header);
        ::rmdir(target.c_str()); // an empty folder given as the target
        std::filesystem::rename(temporary, target);
    } catch (const std::exception& e) {
        std::error_code ignored;
        std::filesystem::remove_all(temporary, ignored);
        err << "ostrand: the recording could not be written: " << e.what() << "\n";
        return kFailed;
    }
    return kWritten;
}

} // namespace

bool recordClasses(const std::string& className, std::vector<std::string>& classes)
{
    if (className.empty()) {
        classesFor("all", classes);
        classes.erase(std::remove(classes.begin(), classes.end(), "modem"), classes.end());
        return true;
    }
    return classesFor(className, classes);
}

int record(const RecordRequest& request, std::ostream& err)
{
    std::string why;
    if (!usable(request.directory, why)) {
        err << "ostrand: " << why << "\n";
        return kBadUse;
    }
    std::unique_ptr<host::FakeMachine> fake;
    if (!request.source.empty()) {
        try {
            fake = host::loadMachine(request.source);
        } catch (const std::exception& e) {
            err << "ostrand: " << e.what() << "\n";
            return kBadUse;
        }
    }
    if (std::find(request.classes.begin(), request.classes.end(), "modem") != request.classes.end()) {
        err << "ostrand: recording modems: AT commands are written to every serial port (tens of seconds a port)\n";
    }

    host::Machine& source = fake ? static_cast<host::Machine&>(*fake) : host::liveMachine();
    host::RecordingMachine recorder(source);
    host::use(&recorder);
    Progress progress(request.progress);
    std::vector<Row> rows = enumerate(request.classes, progress, nullptr);
    progress.start("usb: walking the USB tree");
    UsbReport usb = readUsb();
    progress.stop();
    host::use(nullptr);

    host::RecordingHeader header;
    header.lines.push_back("Recorded by `ostrand record` on " + now() + " from " +
                           (request.source.empty() ? std::string("the live machine") : request.source) + ".");
    header.lines.push_back("Classes: " + joinedClasses(request.classes) + ", and the USB walk. It gave " +
                           std::to_string(rows.size()) + " records and " + std::to_string(usb.devices.size()) +
                           " USB devices.");
    int status = writeAtomically(recorder.recording(), request, header, err);
    if (status == kWritten) {
        const host::Recording& kept = recorder.recording();
        err << "ostrand: recorded " << kept.commands.size() << " commands, " << kept.paths.size() << " paths and "
            << kept.listings.size() << " folder listings into " << request.directory
            << " (review it before sharing: it holds serial numbers and MAC addresses)\n";
    }
    return status;
}

} // namespace ostrand_tool
