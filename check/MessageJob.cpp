// check/MessageJob.cpp: VxWorker::ProcessFile, one spool file from its path
// to one reply line. The job answers only when it succeeds; on failure it
// undoes what it holds (the daemon entry is withdrawn) and throws, and the
// driver answers the error action.
#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <stdexcept>
#include <string>

#include <boost/filesystem/path.hpp>

#include "check/KeptOriginal.h"
#include "check/SpoolFileCloser.h"
#include "check/VxWorker.h"
#include "frame/FilterSettings.h"
#include "frame/Protocol.h"
#include "platform/log/LogClass.h"
#include "platform/log/VxNDC.h"
#include "platform/receiver/ConfHolderShared.h"
#include "platform/receiver/Descriptor.h"
#include "platform/receiver/EntryFiles.h"
#include "platform/receiver/Mail.h"
#include "platform/receiver/VxFile.h"
#include "spool/EnvelopeReader.h"
#include "spool/HeaderScanner.h"
#include "spool/SpoolRegions.h"
#include "spool/SpoolUpdate.h"

namespace
{

// The spool stream's buffer, shared by all jobs of the process; jobs never
// overlap, so it is never in two streams at once.
char spoolStreamBuffer[8192];

// Withdraws the daemon entry when a failure leaves the job while the entry
// is held. Dismissed once the job has answered.
class EntryWithdrawal
{
public:
    explicit EntryWithdrawal(MsgEntry* entry) : entry(entry) {}
    ~EntryWithdrawal()
    {
        if (entry != nullptr)
            (void)entry->Remove(); // the failure on its way out is the one to report
    }
    EntryWithdrawal(const EntryWithdrawal&) = delete;
    EntryWithdrawal& operator=(const EntryWithdrawal&) = delete;

    void Dismiss() { entry = nullptr; }

private:
    MsgEntry* entry;
};

std::string MsgPath(MsgEntry& entry)
{
    return (boost::filesystem::path(entry.GetDir()) / ConfHolderShared::GetMsgFilename()).string();
}

void SeekSpool(int spoolFd, int64_t envelopeSize, const char* what, const char* spoolPath)
{
    if (::lseek(spoolFd, envelopeSize, SEEK_SET) < 0)
        throw std::domain_error(std::string("lseek error:") + std::strerror(errno) + what +
                                spoolPath);
}

// Steps from the new entry to the reply: envelope and message copy into the
// entry, the daemon's verdict, the write-back of a changed message.
VerdictFlags CheckWithDaemon(Receiver& receiver, FILE* spoolStream, const char* spoolPath,
                             const Mail& mail, int64_t envelopeSize)
{
    RefHolder<MsgEntry> entry(receiver.CreateMsgEntry());
    if (!entry)
        throw std::domain_error("error in creating new entry for msg on disk");

    const char* entryId = entry->GetId();
    EntryWithdrawal withdrawal(entry.Get());
    VxNDC logContext(vorex::quelt::GetMsgNDC(entryId, static_cast<int32_t>(std::strlen(entryId)),
                                             nullptr, nullptr));

    mail.LogMail();
    if (!mail.SaveEnvelope(boost::filesystem::path(entry->GetDir())))
        throw std::domain_error(std::string("error in saving envelope to dir [") + entry->GetDir() +
                                "]");

    const std::string msgPath = MsgPath(*entry);
    std::string cause;
    Descriptor msgFile(CreateEntryFile(msgPath, 0660, cause));
    if (!msgFile.IsValid()) {
        if (Log.isErrorEnabled())
            Log.forcedLog(LogClass::Error, cause);
        throw std::domain_error("can not open msg file " + msgPath + " for writing");
    }

    const int spoolFd = ::fileno(spoolStream);
    const int64_t messageSize = GetRemainingSize(spoolFd, envelopeSize);
    if (messageSize > 0) {
        // The stream has read ahead; the copy starts from an explicit offset.
        SeekSpool(spoolFd, envelopeSize, " for file ", spoolPath);
        if (!VxFile::CopyDescr(spoolFd, msgFile.Get(), messageSize, nullptr, nullptr))
            throw std::domain_error("error in copy body");
    }

    if (filterSettings.uid != -1)
        (void)entry->SetOwner(filterSettings.uid, filterSettings.gid); // logged by the library

    VerdictFlags verdict = receiver.ProcessMsg(entry.Get(), 0, 0, 0, 0);

    if (verdict & VerdictDaemonError)
        throw std::logic_error("error in vorex-quelt");
    if (verdict & VerdictTakenOver) {
        if (Log.isDebugEnabled())
            Log.forcedLog(LogClass::Debug, "msg was accepted by quelt -> discard it");
        verdict = VerdictDiscard;
    } else if (verdict & VerdictPass) {
        if (verdict & VerdictEnvelopeChanged)
            throw std::invalid_argument("Envelope changed: can not update this thing!");
        if (verdict & ContentChangedMask) {
            if (Log.isDebugEnabled())
                Log.forcedLog(LogClass::Debug, "Top headers or body was changed: need update...");
            SeekSpool(spoolFd, envelopeSize, " on file ", spoolPath);
            // The flush's result does not change the verdict: the rewrite
            // is done, and ZMailer reads the file through the same page
            // cache. It is told to the administrator and counted.
            if (UpdateSpoolFile(MsgPath(*entry), spoolFd, messageSize, spoolPath, envelopeSize) !=
                0) {
                const int error = errno;
                if (Log.isErrorEnabled())
                    Log.forcedLog(LogClass::Error, std::string("fsync error:") +
                                                       std::strerror(error) + " for file " +
                                                       spoolPath);
                receiver.ReportFsyncFailed(entry.Get());
            }
        }
        (void)entry->Remove(); // a leftover directory is the daemon's to clean; logged there
    } else {
        // Kept: what a release may send is what arrived here, recorded
        // where the account cannot write.
        (void)SaveKeptOriginal(boost::filesystem::path(msgPath).parent_path().string(), entryId,
                               mail, spoolFd, envelopeSize, messageSize); // failure logged there
    }

    WriteVerdictReply(verdict, entry->GetReplyText());
    withdrawal.Dismiss();
    return verdict;
}

} // namespace

VerdictFlags VxWorker::ProcessFile(const char* spoolPath)
{
    if (Log.isDebugEnabled())
        Log.forcedLog(LogClass::Debug, std::string("file - '") + spoolPath + "'");

    FILE* stream = std::fopen(spoolPath, "r+");
    if (stream == nullptr)
        throw std::domain_error(std::string("can not open file ") + spoolPath +
                                " for read/write:" + std::strerror(errno));
    SpoolFileCloser spool(stream);
    if (std::setvbuf(stream, spoolStreamBuffer, _IOFBF, sizeof spoolStreamBuffer) != 0)
        throw std::logic_error("error in setvbuf");

    VerdictFlags verdict;
    {
        Mail mail;
        bool senderFound = false;
        bool recipientFound = false;
        const int64_t envelopeSize = ReadEnvelope(stream, mail, senderFound, recipientFound);

        const bool headersNeeded = !filterSettings.hash.empty() || !senderFound || !recipientFound;
        if (headersNeeded && ScanHeaders(stream, spoolPath, mail, senderFound, recipientFound)) {
            WriteReply(0, "");
            verdict = VerdictPass;
        } else {
            verdict = CheckWithDaemon(*receiver, stream, spoolPath, mail, envelopeSize);
        }
    }
    spool.Close();
    return verdict;
}
