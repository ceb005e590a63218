#pragma once

// The control panel's controller: owns the link to the background application, is its delegate, and
// publishes the values the panel's views are bound to. One class; its methods are spread over one
// source file per tab or sheet (PaneStatus.cpp, PanePublishTab.cpp, …).

#include "link/NimbrelCom.h"
#include "link/NimbrelComDelegate.h"
#include "pane/Binding.h"
#include "pane/PaneServices.h"
#include "platform/Bundle.h"
#include "platform/Observable.h"

#include <QDBusConnection>
#include <QDateTime>
#include <QObject>
#include <QPointer>
#include <QUrl>
#include <QVariantMap>
#include <QWidget>
#include <memory>
#include <optional>
#include <vector>

class QAbstractButton;
class QAbstractItemModel;
class QAbstractItemView;
class QCheckBox;
class QComboBox;
class QDialog;
class QLabel;
class QLineEdit;
class QModelIndex;
class QPlainTextEdit;
class QProgressBar;
class QPushButton;
class QStyleOptionViewItem;
class QStyledItemDelegate;
class QTabWidget;
class QTableView;
class QTreeView;

namespace nimbrel {

class CalendarItemModel;
class ClickableTextField;
class RunLoop;
class SourceTableColumn;

// A table column outlet: the view and the column whose data cell the pane sets.
struct ColumnOutlet
{
    QAbstractItemView* view = nullptr;
    int column = 0;
    void setDataCell(QStyledItemDelegate* cell) const;
};

// Everything the pane takes from its host besides the bundle; tests pass a virtual run loop, a private
// bus and replaced services.
struct PaneEnvironment
{
    RunLoop* runLoop = nullptr; // RunLoop::current() when null
    QDBusConnection connection = QDBusConnection::sessionBus();
    PaneServices services = PaneServices::system();
};

class ComQuorviaNimbrelPref : public QObject, public Observable, public NimbrelComDelegate
{
    Q_OBJECT
public:
    // Status codes of the background application.
    enum Status : long
    {
        StatusUnknown = 0,
        StatusStopped = 1,
        StatusStarting = 2,
        StatusStopping = 3,
        StatusRunning = 4,
        StatusNotResponding = 5,
        StatusVersionError = 6
    };

    // initWithBundle: — the start-up guard first (with no bundle yet), then the link and the six
    // edited dictionaries.
    explicit ComQuorviaNimbrelPref(const Bundle& bundle, PaneEnvironment environment = PaneEnvironment());
    ~ComQuorviaNimbrelPref() override;

    // ---- Loading the view (Pane.cpp) ----------------------------------------------------------
    // Builds the main view from its interface files into `window` (the "nib"), then the host calls
    // awakeFromNib and mainViewDidLoad.
    QWidget* loadMainView(QWidget* window);
    void awakeFromNib();
    void mainViewDidLoad();
    QWidget* mainView() const { return m_mainView; }
    QWidget* window() const { return m_window; }
    NimbrelCom& com() { return *m_com; }
    const Bundle& bundle() const { return m_bundle; }
    PaneServices& services() { return m_services; }

    // ---- Selection (PaneSelection.cpp) ----------------------------------------------------------
    void didSelect();
    void didUnselect();

    // ---- Status, Start/Stop, updates, menu bar, help (PaneStatus.cpp) ------------------------------
    QString statusMessage() const;
    QString startButtonName() const;
    bool isRunning() const;
    QString versionString() const;
    bool displayMenuBar() const;
    void setDisplayMenuBar(bool display);
    bool checkForUpdates() const;
    void setCheckForUpdates(bool check);
    QDateTime lastCheckedDate() const;
    QString lastCheckedDateText() const; // through the long-date formatter
    static bool isLeopardOrLater();
    long backgroundAppStatus() const { return m_backgroundAppStatus; }
    void setStatus(long code);
    void setMenuBarStatus();
    void startButton(QObject* sender);
    void checkButton(QObject* sender);
    void helpButton(QObject* sender);
    QString helpUrl(int tag) const;
    void webURL(ClickableTextField* sender);

    // ---- Welcome sheet (WelcomeSheet.cpp) -------------------------------------------------------
    const QVariantMap& welcome() const { return m_welcomeDict; }
    void showWelcomeSheet();
    void welcomeSheetButton(QObject* sender);
    void welcomeSheetDidEnd(int returnCode);

    // ---- Replaced bundle and multi-user restart (PaneUpdateChecks.cpp) ---------------------------
    bool manuallyInstalled();
    void checkUpdatedMultiuserSystem(bool firstLaunch);
    void restartEnd(int returnCode);
    // The host's own defaults (the ".vers" key lives there).
    static QString hostDefaultsPath();

    // ---- Key paths into the edited dictionaries (the sheets bind "welcome.email" and the like) ----
    QVariant valueForKeyPath(const QString& keyPath) const;
    void setValueForKeyPath(const QString& keyPath, const QVariant& value);
    void observeValueForKeyPath(const QString& keyPath, const void* object);

    // ---- Publishing tab (PanePublishTab.cpp) --------------------------------------------------------
    std::shared_ptr<CalendarList> publishCalendars();
    const QVariantMap& publishOptions() const { return m_publishOptionsDict; }
    const QVariantMap& networkSettings() const { return m_networkSettingsDict; }
    QString publishOptionsReadAccessSummary() const;
    QString publishOptionsWriteAccessSummary() const;
    bool publishOptionsEnabled() const; // a publishable calendar is selected
    void publishOptionsButton(QObject* sender);
    void publishingCalendar(const QVariantMap& calendar);
    void publishCheckbox(const QModelIndex& row); // the publish column's binding
    void networkSettingsButton(QObject* sender);
    void setBonjourNameButton(QObject* sender);
    // control:textView:doCommandBySelector: — Return in the Bonjour name field sets the name.
    bool control(QObject* control, QObject* textView, const QByteArray& command);
    void updateNetworkSettings(const std::optional<QVariantMap>& info);

    // ---- Publish options and network settings sheets (PublishOptionsSheet.cpp, NetworkSettingsSheet.cpp)
    void publishOptionsSheetButton(QObject* sender);
    void publishOptionsSheetDidEnd(int returnCode);
    void networkSettingsSheetButton(QObject* sender);
    void networkSettingsSheetDidEnd(int returnCode);

    // ---- Subscription tab (PaneSubscribeTab.cpp) --------------------------------------------------
    std::shared_ptr<CalendarList> subscribeCalendars();
    const QVariantMap& subscribeOptions() const { return m_subscribeOptionsDict; }
    const QVariantMap& serverSettings() const { return m_serverSettingsDict; }
    // Not const: while offline with a changed password it clears the copy's restriction flags.
    QString subscribeOptionsAccessSummary();
    bool subscribeOptionsEnabled() const;
    QString addServerButtonName() const;
    void outlineViewWillDisplayCell(QStyledItemDelegate* cell, QStyleOptionViewItem& option,
                                    const QModelIndex& item);
    bool outlineViewShouldSelectItem(const NimbrelCalendar& node) const;
    bool outlineViewShouldExpandItem(NimbrelCalendar& node);
    bool outlineViewShouldCollapseItem(NimbrelCalendar& node);
    void subscribeCheckbox(const QModelIndex& row);
    void subscribeOptionsButton(QObject* sender);
    void subscribeToCalendar(const QVariantMap& calendar);
    bool sourceIsOffline(const QVariantMap& calendar);
    bool subscribePassIsChanged(const QVariantMap& calendar);
    // The index path of a row of subscribeCalendars (depth first; a matching source before its
    // calendars); nullopt when it is not there.
    std::optional<QList<int>> indexPathToObject(const NimbrelCalendar& node);
    QList<int> selectionIndexPath() const;
    void setSelectionIndexPath(const QList<int>& path);

    // ---- Subscribe options and server settings sheets (SubscribeOptionsSheet.cpp, ServerSettingsSheet.cpp)
    void subscribeOptionsSheetButton(QObject* sender);
    void subscribeOptionsSheetDidEnd(int returnCode);
    void addServerButton(QObject* sender);
    void editServerSettings(const QVariantMap& settings);
    void serverSettingsSheetButton(QObject* sender);
    void serverSettingsSheetDidEnd(int returnCode);
    void disconnectButtonEnd(int returnCode);
    void doDisconnect();

    // ---- Google tab (PaneGoogleTab.cpp) -----------------------------------------------------------
    std::shared_ptr<CalendarList> publishToGoogle();
    CalendarList subscribeToGoogle();
    QVariant googleAccount();
    QVariant googleLastSync();
    const QVariantMap& googleSettings() const { return m_googleSettingsDict; }
    void publishGoogleCheckbox(const QModelIndex& row);
    void subscribeGoogleCheckbox(const QModelIndex& row);
    void tableViewWillDisplayCell(const ColumnOutlet& column, QStyleOptionViewItem& option, int row);
    void googleSyncNowButton(QObject* sender);
    bool googleSyncInProgress() const { return m_googleSyncInProgress; }

    // ---- Google settings sheet (GoogleSettingsSheet.cpp) ---------------------------------------------
    void googleOptionsButton(QObject* sender);
    void googleSettingsSheetButton(QObject* sender);
    void googleSettingsSheetDidEnd(int returnCode);
    void googleDisconnectButtonEnd(int returnCode);
    void doGoogleDisconnect();

    // ---- Reset tab (PaneResetTab.cpp) -------------------------------------------------------------
    void resetSyncHistoryButton(QObject* sender);
    bool resetSyncServices();
    void enableResetButton();
    void resetButton(QObject* sender);
    void resetButtonEnd(int returnCode);
    void doReset();
    void restoreFromBackupButton(QObject* sender);
    void openPanelDidEnd(int returnCode, const QList<QUrl>& urls);
    static QString backupFolder();
    bool doingReset() const { return m_doingReset; }

    // ---- Log tab (PaneLogTab.cpp) -------------------------------------------------------------------
    bool logPaneShowing() const;
    void updateLogView();
    void setLogTimer();
    void cancelLogTimer();
    void logTimer(const QByteArray& timer);
    void clearLogView();
    void tabViewDidSelectTabViewItem(int index);
    // The sender: a string is the subject of the message, anything else means "Nimbrel Logs".
    void emailButton(const QVariant& sender);
    quint64 logSize() const { return m_logSize; }
    bool logTimerPending() const { return !m_logTimer.isEmpty(); }

    // ---- Delegate of the link ---------------------------------------------------------------------
    void nimbrelBackgroundAppStateChange(bool running, bool responding) override;
    void nimbrelProtocolVersionError() override;
    void nimbrelBonjourNamePublished() override;
    void nimbrelCheckedForUpdate() override;
    void nimbrelResetFinished(bool success) override;
    void nimbrelPublishingCalendar(const QVariantMap& calendar) override;
    void nimbrelSubscribingToCalendar(const QVariantMap& calendar) override;
    void nimbrelPublishedCalendarsChanged() override;
    void nimbrelSubscribedCalendarsChanged() override;
    void nimbrelGoogleSyncProgress(bool inProgress) override;

    // The address delayed performs aimed at this pane use (its most derived address, as the link's).
    const void* performTarget() const { return dynamic_cast<const void*>(this); }

private:
    // Loading the tabs and sheets from their interface files.
    QWidget* loadStatusArea();
    QWidget* loadPublishTab();
    QWidget* loadSubscribeTab();
    QWidget* loadGoogleTab();
    QDialog* loadPublishOptionsSheet();
    QDialog* loadNetworkSettingsSheet();
    QDialog* loadSubscribeOptionsSheet();
    QDialog* loadServerSettingsSheet();
    QDialog* loadGoogleSettingsSheet();
    CalendarRef googleSource();
    // Controls that edit a key path of the pane's dictionaries, both ways ("serverSettings.title").
    void bindField(QLineEdit* field, const QString& keyPath);
    void bindBox(QAbstractButton* box, const QString& keyPath);
    void bindChoice(QComboBox* choice, const QString& keyPath);
    void connectSheetButtons(QDialog* sheet, void (ComQuorviaNimbrelPref::*action)(QObject*));
    QWidget* loadResetTab();
    QWidget* loadLogTab();
    QDialog* loadWelcomeSheet();
    void performAfterDelay(const char* selector, double seconds, void (ComQuorviaNimbrelPref::*method)());
    QVariantMap* dictionaryForKey(const QString& key);
    const QVariantMap* dictionaryForKey(const QString& key) const;

    // Fields in declaration order.
    Bundle m_bundle;
    std::unique_ptr<NimbrelCom> m_com;
    long m_backgroundAppStatus = 0;
    bool m_doingReset = false;
    bool m_restartAfterReset = false;
    bool m_googleSyncInProgress = false;
    quint64 m_logSize = 0;
    QByteArray m_logTimer; // the selector of the pending log timer; empty when none
    QPointer<QWidget> m_window;
    QPushButton* m_startButton = nullptr;
    QProgressBar* m_startIndicator = nullptr;
    QPushButton* m_checkButton = nullptr;
    QCheckBox* m_autoUpdateCheckbox = nullptr;
    QProgressBar* m_checkIndicator = nullptr;
    QLabel* m_checkDateField = nullptr;
    QTableView* m_publishTableView = nullptr;
    CalendarItemModel* m_publishController = nullptr;
    QPushButton* m_setButton = nullptr;
    QProgressBar* m_setIndicator = nullptr;
    QTreeView* m_subscribeOutlineView = nullptr;
    SourceTableColumn* m_sourceColumn = nullptr;
    CalendarItemModel* m_subscribeController = nullptr;
    CalendarItemModel* m_publishGoogleController = nullptr;
    CalendarItemModel* m_subscribeGoogleController = nullptr;
    ColumnOutlet m_publishGoogleColumn;
    ColumnOutlet m_subscribeGoogleColumn;
    QPushButton* m_googleSettingsButton = nullptr;
    QProgressBar* m_googleSyncIndicator = nullptr;
    QPushButton* m_resetSyncHistoryButton = nullptr;
    QPushButton* m_resetButton = nullptr;
    QProgressBar* m_resetIndicator = nullptr;
    QPlainTextEdit* m_logTextView = nullptr;
    QTabWidget* m_tabView = nullptr;
    QPushButton* m_emailButton = nullptr;
    QProgressBar* m_emailIndicator = nullptr;
    QDialog* m_publishOptionsSheet = nullptr;
    QVariantMap m_publishOptionsDict;
    QDialog* m_subscribeOptionsSheet = nullptr;
    QVariantMap m_subscribeOptionsDict;
    QDialog* m_networkSettingsSheet = nullptr;
    QLineEdit* m_portField = nullptr;
    QVariantMap m_networkSettingsDict;
    QDialog* m_serverSettingsSheet = nullptr;
    QVariantMap m_serverSettingsDict;
    QDialog* m_googleSettingsSheet = nullptr;
    QVariantMap m_googleSettingsDict;
    QDialog* m_welcomeSheet = nullptr;
    QProgressBar* m_welcomeIndicator = nullptr;
    QVariantMap m_welcomeDict;

    // Plumbing.
    RunLoop* m_runLoop;
    PaneServices m_services;
    QPointer<QWidget> m_mainView;
    Binder m_binder{*this};
    std::vector<Observation> m_observations; // the pane's own key paths, in registration order
    QMetaObject::Connection m_selectionObservation;
    quint64 m_logTimerSerial = 0;
};

} // namespace nimbrel
