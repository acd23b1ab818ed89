// The protection daemon: the one owner of state, the application's delegate and the root object of
// the control connection. This header is the table of contents of the system: first everything the
// daemon knows, then everything it does, under one heading a folder. Operations are thin: they
// gather, ask a decision or a pass what is to be done, and apply it. Everything here runs on the
// loop's thread, or on a background thread that the loop's thread waits for.
#pragma once

#include <array>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <exception>
#include <list>
#include <map>
#include <memory>
#include <optional>
#include <set>
#include <string>
#include <string_view>
#include <vector>

#include "base/NotificationCenter.h"
#include "base/PropertyList.h"
#include "core/ScanPace.h"
#include "core/SystemVersion.h"
#include "core/TrashSearch.h"
#include "mail/QLSMTPController.h"
#include "platform/LogOnce.h"
#include "platform/Machine.h"
#include "storage/DriveIndex.h"
#include "storage/EntryFields.h"

namespace korvane {

struct Place;
struct TrashScan;
class VolumeEntry;
enum class DriveProbe;

class KorvaneProDaemon final : public ControlTarget {
    // ---- State ----------------------------------------------------------------------------------

    // The machine's parts; they outlive the daemon.
    const Machine machine_;

    // What is logged once for as long as it lasts.
    LogOnce logOnce{machine_.systemLog};

    // Settings and inventories. The arrays are kept apart from the dictionary and put into it for
    // the length of a write. No dictionary: nothing has been loaded, or the file does not parse.
    std::optional<Dictionary> preferenceDictionary;
    PropertyListArray driveArray;   // drive entries
    PropertyListArray volumeArray;  // volume entries
    // The start-up volume is not among the directory backup locations, as of the last load.
    bool rootSaveDisabled = false;

    // Life cycle. From awakeFromNib() to the end of doStartup().
    bool startupInProgress = false;
    // The statuses of before this start are reset. Not so where the settings could not be read
    // then.
    bool areEntriesMarked = false;

    // Flags of the running checks, told to the main application.
    bool smartActive = false;   // a SMART check is due or runs
    bool backupActive = false;  // a directory backup is due or runs

    // The drives that are attached, by the names of their entries.
    DriveIndex driveIndex{machine_.deviceRegistry};
    // What the drive last asked said of itself; cleared for each disk number that a check goes
    // through.
    bool failing = false;

    // What the main application has asked for.
    bool ignoreMountedOstrand = false;  // leave a mounted emergency volume alone
    bool ignoreFreeSpaceUsage = false;  // the volume usage check does nothing

    // Polls made without finding the emergency volume since its timer was armed.
    std::uint16_t ostrandTryCount = 0;

    // The vended connection on which the main application talks to the daemon, or null.
    std::unique_ptr<RegisteredConnection> destConnection;

    // E-mail: the one client, which tells its progress on the notification centre, and the dialog
    // about it on the screen.
    NotificationCenter notificationCenter;
    std::unique_ptr<QLSMTPController> smtpController;
    std::unique_ptr<AlertDialog> emailNotificationRef;

    // The monitors' dialog on the screen: a new one cancels it first, so there is one at most.
    std::unique_ptr<AlertDialog> userNotificationRef;

    // The directory backup. The helper of the current run and the copy launched last, or null.
    std::unique_ptr<Task> directoryPipeTask;
    std::unique_ptr<Task> cpTask;
    std::string dirBackupFilePath;    // the file of the current or the last run; empty: none
    bool directoryActive = false;     // from the helper's launch until the run's copying is over
    bool backupDisabled = false;      // by word of the main application; the scheduler heeds it
    std::size_t directoryOffset = 0;  // the index in volumeArray of the current run's volume
    std::uint64_t directoryRun = 0;   // tells the runs apart

    // Trash history. A slot without a subscription is empty; the number of slots is a fixed limit.
    std::array<std::unique_ptr<DirectorySubscription>, 100> trashRetainerFNSubscriptionRefArray;
    std::map<std::string, std::size_t> trashSlots;  // by folder, also of those without one
    ScanPace scanPace;
    std::unique_ptr<Timer> scanTimer;        // the next scan that had to wait
    std::unique_ptr<Timer> trashWatchTimer;  // the next attempt to watch all folders
    std::chrono::minutes trashWatchDelay{1};
    std::vector<SearchTask> searchTasks;             // recovery programs, until none is pending
    std::list<std::unique_ptr<Timer>> searchTimers;  // one for each poll that is to come
    std::chrono::seconds searchRetryDelay = kSearchPoll;   // while the program cannot be launched
    std::map<std::string, WaitingSearch> waitingSearches;  // by trash folder
    std::map<std::uint64_t, SearchContent> uncollectedResults;  // by node: no room to keep them
    std::int64_t trashSaveDays = 0;                             // as of the last load
    // What the last question for a device's value found of its partition table.
    bool schemeOfPartition = false;

    // Timers. To cancel one is to reset its field; one that has fired may stay in its field.
    std::unique_ptr<Timer> clockTimer;        // the next tick and, once, the delayed start
    std::unique_ptr<Timer> outTimer;          // the tick at which the next check falls due
    std::unique_ptr<Timer> stepTimer_usage;   // starts the usage check of one volume
    std::unique_ptr<Timer> stepTimer_backup;  // starts the directory backup of one volume
    std::unique_ptr<Timer> stepTimer_smart;   // starts the SMART check of one drive
    std::unique_ptr<Timer> ostrandTimer;      // polls for the emergency volume
    std::unique_ptr<Timer> loadTimer;         // loads settings that could not be read for a while
    std::unique_ptr<Timer> saveTimer;         // writes settings that could not be, or not so soon
    // The tick that comes when a part of the work has failed, whatever else was to bring one.
    std::unique_ptr<StandbyTimer> tickAfterFailure{
        machine_.runLoop.makeStandbyTimer([this] { tickAfterFailureIsDue(); })};

    // The settings as they are known to be on the disk (SettingsDigest.h), and the time since boot
    // of the last write in microseconds.
    std::optional<std::uint64_t> syncedSettings;
    std::uint64_t lastWrite = 0;

    // The polls of launched copies that are pending, by number, each with its run.
    struct CopyPoll {
        std::uint64_t run = 0;
        std::unique_ptr<Timer> timer;
    };
    std::map<std::uint64_t, CopyPoll> copyPolls;
    std::uint64_t nextCopyPoll = 0;

  public:
    // ---- The process ----------------------------------------------------------------------------

    explicit KorvaneProDaemon(const Machine& machine);
    ~KorvaneProDaemon() override;
    KorvaneProDaemon(const KorvaneProDaemon&) = delete;
    KorvaneProDaemon& operator=(const KorvaneProDaemon&) = delete;

    // First stage: takes its place on the run loop, vends itself, loads the preferences, and arms
    // the emergency-volume watch and the delayed start. Once, before the loop runs.
    void awakeFromNib();

    // Performs the action of a command word, if it is one, and answers its question: YES but for
    // the question words while what they ask about is under way.
    bool messageXmitRcvr(const std::string& word) override;

    // Create empty files, or remove items, for the main application, from the last path to the
    // first. What fails is logged and the rest goes on.
    void messageDoCreateItems(const std::vector<std::string>& paths) override;
    void messageDoDeleteItems(const std::vector<std::string>& paths) override;

    // Watches the trash folders of all volumes anew; with `scanNow` each counts as changed
    // (TrashWatch.cpp).
    void setupTrashRetainer(bool scanNow);

  private:
    // ---- core/: life cycle (LifeCycle.cpp) ------------------------------------------------------

    // Second stage, two minutes after boot at the earliest.
    void doStartup();
    void markNotYetExamined();
    void applicationWillBecomeActive();
    void applicationWillTerminate();
    void removeObservers();
    void didTerminateApplicationNotification(const std::string& bundleIdentifier);
    // Whether the suite's main application runs.
    [[nodiscard]] bool isKorvaneProRunning();
    // Has the end of the main application noticed even where only its process shows it.
    void watchMainApplication();
    // Asks the application to quit. Whoever calls this does nothing more.
    void quit();
    void quitWithoutSupportFolder();

    // ---- core/: preferences (Preferences.cpp) ---------------------------------------------------

    // Replaces what is loaded by what the file holds; where memory runs out over that, nothing of
    // what is loaded changes.
    void loadPreferences();
    // The file's dictionary, an empty one where there is no file; nothing, and a log line, when the
    // file cannot be used.
    [[nodiscard]] std::optional<Dictionary> readPreferences();
    // Where the entries of drives and volumes come from when a document is taken.
    enum class EntryArrays { ofDocument, inMemory };
    void takePreferences(std::optional<Dictionary> document, EntryArrays arrays);
    // Forces every default over the document, takes it with the entries in memory, and writes.
    void createPreferences(Dictionary document);
    // Has the settings loaded once more, after descriptors or memory were short.
    void loadAgain();
    // Puts the arrays into the dictionary and rewrites the file; what fails is tried again in a
    // while, and nothing is said. A very large document is written every few seconds at most.
    void writePreferences();
    void writeLater(std::chrono::microseconds delay);
    // The loaded dictionary with the arrays in it, as the file has it. Only while there is one.
    [[nodiscard]] std::string preferencesText();
    // Writes and asks for a tick in a second. False, having quit instead, when the support folder
    // is no longer a folder: then nothing more is done.
    bool savePreferences();
    // Reloads everything and re-arms; quits as savePreferences() does.
    void preferencesUpdated();
    // A setting, or null; null too while no dictionary is loaded.
    [[nodiscard]] const PropertyList* preference(std::string_view key) const;
    // "/Volumes/" and the start-up volume's display name: its form among the backup locations.
    [[nodiscard]] std::string startUpVolumeLocation();

    // ---- core/: inventories (Inventory.cpp) -----------------------------------------------------

    void updateDrivePreferences(DriveProbe probe);
    void updateVolumePreferences();
    // Both, the drives first. One that fails leaves the other alone.
    void refreshInventories(DriveProbe probe);

    // ---- core/: scheduler (Scheduler.cpp) -------------------------------------------------------

    // One tick: refreshes the inventories, starts what is due, and arms the next one.
    void updateClock();
    // Arms the tick at which the earliest check falls due.
    void setOutTimer();
    void tick();
    // Does one part of the work. What it throws is logged, once until this part succeeds again, and
    // a tick follows soon. Answers whether nothing was thrown. The part is named for the log.
    template <typename Work>
    bool carryOut(std::string_view part, const Work& work) {
        try {
            work();
        } catch (const std::exception& failure) {
            goOnAfterFailure(part, failure.what());
            return false;
        }
        logOnce.ended(part);
        return true;
    }
    void goOnAfterFailure(std::string_view part, std::string_view reason) noexcept;
    void armTickAfterFailure() noexcept;
    void tickAfterFailureIsDue();
    // The wall clock has been set.
    void clockDidStep(std::chrono::microseconds step);
    [[nodiscard]] bool runningOnBattery();
    // Whether protection is on: only a switch that is there and NO turns it off.
    [[nodiscard]] bool daemonIsOn() const;
    // Refreshes the inventories and starts what is due, one check of each kind at the most. False
    // when the daemon quits meanwhile.
    [[nodiscard]] bool startDueChecks();
    void startDueUsageCheck();
    // Starts it or puts it off; false when the daemon quits over that.
    [[nodiscard]] bool startDueDirectoryBackup();
    void startDueSmartCheck();
    // Does the check of the entry with this index. One that fails is over like any other: its entry
    // is due again after its interval, and the entries behind it have their turn.
    template <typename Check>
    void carryOutCheck(std::string_view part, PropertyListArray& entries, std::size_t index,
                       const CheckKeys& keys, const Check& check) {
        if (!carryOut(part, check)) endFailedCheck(entries, index, keys);
    }
    void endFailedCheck(PropertyListArray& entries, std::size_t index, const CheckKeys& keys);
    void armClockTimer(std::chrono::microseconds delay);

    // ---- core/: control messages (ControlMessages.cpp) ------------------------------------------

    // Tests the word against the vocabulary and acts on it; the answer.
    bool dispatchControlWord(std::string_view word);
    void doIgnoreOstrand();
    void doUnMountOstrand();
    void doIgnoreFreeSpace();
    void doCheckFreeSpace();

    // ---- core/: emergency-volume watch (EmergencyVolume.cpp) ------------------------------------

    // One poll: unmounts the emergency volume unless the main application needs it.
    void checkForOstrand();
    void volumeMountHandler();
    void volumeUnmountHandler();
    void armOstrandTimer(std::chrono::microseconds interval);

    // ---- core/: system version (SystemVersion.cpp) ----------------------------------------------

    [[nodiscard]] std::string getCurrentSystemString();
    [[nodiscard]] ComparisonResult compareCurrentSystemVersionWith(std::string_view version);

    // ---- core/: texts (LocalizedTexts.cpp) ------------------------------------------------------

    // The text of the default strings table; the key itself where it has none.
    [[nodiscard]] std::string localized(std::string_view key);

    // ---- core/: mail hooks (MailHooks.cpp) ------------------------------------------------------

    [[nodiscard]] std::unique_ptr<QLSMTPController> newSmtpController();
    // A client whose server has hung up or fallen silent stays busy for ever: another one takes its
    // place.
    void replaceAbandonedSmtpController();
    // An e-mail send is under way, and its server is still there.
    [[nodiscard]] bool emailSendIsBusy() const;
    // Hands an alert to the client, for the check of that name. When an earlier session holds on
    // for longer than a minute the alert is not mailed, and the log says so.
    void sendAlertMail(const std::string& message, const std::string& sender);
    void tellMailSessionEnd(const MailSessionEnd& end);
    void daemonTestSendingEmailNotification();
    // The dialogs about a test mail, from its request to its end.
    void registerForSMTPNotifications();
    void unregisterForSMTPNotifications();
    void smtpDidBegin();
    void smtpDidFinish();
    void smtpDidError(const Notification& notification);
    void showMailDialog(const Alert& alert);

    // ---- monitors/ ------------------------------------------------------------------------------

    // Asks the drive whose entry has this index in driveArray (SmartCheck.cpp).
    void smartCheck(std::size_t index);
    // Opens the drive and asks it; sets `failing`. Not kDriveSuccess when there is no answer.
    [[nodiscard]] DriveStatus readSmartStatus(const CheckedDrive& drive);
    void warnOfFailingDrive(const CheckedDrive& drive);
    void logLackOfRights(const std::string& path);
    // Measures the volume whose entry has this index in volumeArray (VolumeUsageCheck.cpp).
    void volumeUsageCheck(std::size_t index);
    // Whether the volume is mounted, can be filled, and is not the emergency volume.
    [[nodiscard]] bool canMeasureUsage(const std::string& path);
    void measureVolumeUsage(const std::string& path, VolumeEntry& entry, std::size_t index);
    void mailUsageWarning(const std::string& displayName, float percentFree);
    // Shows a warning with this message in place of the one on the screen (WarningDialog.cpp).
    void showWarningDialog(const std::string& message);
    // Adds one entry to the history log of a drive or a volume (HistoryLog.cpp). The index of the
    // drive's or volume's own entry is not needed for it.
    void updateLog(std::int16_t kind, const Dictionary& logDict, std::size_t index);

    // ---- backup/ --------------------------------------------------------------------------------

    // Starts the backup of the volume whose entry has this index in volumeArray
    // (DirectoryBackup.cpp). Where it cannot start, nothing is written.
    void directoryBackup(std::size_t index);
    // Makes room for one more backup in the volume's folder, or makes the folder.
    void prepareVolumeFolder(const std::string& displayName);
    void launchDirectoryBackup(std::size_t index, const std::string& path,
                               const std::string& displayName);
    // The helper has ended: its file is copied to the locations and the run is noted.
    void directoryTaskTerminateNotification(const Task& task);
    void noteDirectoryBackup();
    // Whether an entry that is marked as running is not, and what then becomes of it: false when
    // the daemon quits over that.
    [[nodiscard]] bool isDirectoryBackupStranded();
    [[nodiscard]] bool giveUpDirectoryBackup(std::size_t index);
    void copyToLocation(const std::string& location);
    void launchCopy(const std::string& location, const Place& place);
    // At the top of the location's volume, where it is missing.
    void writeSettingsCopy(const std::string& location, const Place& place);
    void scheduleCopyPoll(std::uint64_t number, std::uint64_t run);
    void pollCopy(std::uint64_t number);
    // What failed at the end of a run leaves no run behind that never ends.
    void endFailedBackup();
    // One poll: when the copy has ended, or there is none, the copying of its run is over.
    void checkCopyTaskComplete(std::uint64_t number);
    // Ends the helper and removes what it has written.
    void abandonDirectoryBackup();
    void directoryBackupStopNotification();
    void disableDirectoryBackupNotification();
    void enableDirectoryBackupNotification();

    // ---- trash/ ---------------------------------------------------------------------------------

    [[nodiscard]] bool watchTrashFolder(std::size_t slot, const std::string& folder, bool scanNow);
    // The machine has no more watches: all of this is tried again, after a pause that grows.
    void watchTrashAgainLater();
    // A watched folder has changed: it is scanned once its user may have another scan.
    void trashDidChange(const std::string& folder);
    void scanChangedTrashes();
    // One scan: records what is in the folder and has the recovery program look at it.
    void MyFNSubscriptionProc(std::size_t slot, const std::string& folder);
    // Begins a usage file with what `edit` makes of an empty one where there is none; one that can
    // be read and not used is set aside.
    [[nodiscard]] Result<std::monostate> beginTrashUsage(
        const std::function<bool(PropertyList&)>& edit);
    // One line for each time in which it cannot be written.
    void logUsageFile(const Result<std::monostate>& written, LogMessage message);
    // A search for items that had left the trash has ended: their records are gone through again.
    void didFindOut();
    // Records what a scan has found, marks and drops records, all of that in one write, and drops
    // files of results that are old enough (TrashUpkeep.cpp).
    void trashSub(const TrashScan& scan);
    // The numbers of the items whose records have to do with what is in the trash.
    [[nodiscard]] std::vector<ItemNumber> updateTrashUsage(Dictionary& usage,
                                                           const TrashScan& scan);
    void expireTrashFiles();
    // Launches the recovery program for the items of a trash folder, or has that wait
    // (TrashSearches.cpp).
    void startSearch(const std::string& folder, WaitingSearch search);
    void startWaitingSearches();
    // Nothing when the jobs cannot be written, or the program cannot be launched.
    [[nodiscard]] std::optional<SearchTask> launchSearch(const WaitingSearch& search);
    // Whether the result of this job has a place; one that somebody else has taken is logged once.
    [[nodiscard]] bool hasPlaceForResult(const SearchContent& job);
    // Whether the result of another item of this number, on another volume or in another folder,
    // is still to come or to be collected there.
    [[nodiscard]] bool isPlaceOfAnotherResult(const SearchContent& job) const;
    // The program's input for jobs of this volume: one that no running program still has to read.
    [[nodiscard]] std::string searchInputFor(const std::string& volumeName) const;
    void armSearchTimer(std::chrono::seconds delay);
    // Collects the results of the programs that have ended; polls on while any is pending.
    void searchTaskCompleteCheck();
    void collectSearchTask(SearchTask& task);
    void collectSearchResult(const SearchContent& job);
    void endSearchThatHangs(SearchTask& task);
    // Takes up what a daemon before this one has left of its searches (TrashLeftovers.cpp).
    void takeUpSearches();
    // For a result whose input file is gone, by the volumes that the records of its item name.
    void collectLeftResult(std::uint64_t nodeId, const std::set<std::int16_t>& seenOn);
    // What the program of an earlier daemon has not come to is searched for anew.
    void searchAnew(SearchTask& task);
};

}  // namespace korvane
