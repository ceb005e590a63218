// ComQuorviaNimbrelPref: creation and destruction, loading the view from its interface files, the
// observations of awakeFromNib, the set-up of mainViewDidLoad, and key paths into the edited
// dictionaries.

#include "cells/SourceButtonCell.h"
#include "cells/SourceTableColumn.h"
#include "cells/SourceTextFieldCell.h"
#include "cells/ValueTransformers.h"
#include "pane/ComQuorviaNimbrelPref.h"
#include "pane/PaneIcon.h"
#include "pane/Sheets.h"
#include "platform/PrefPaneUtilities.h"
#include "platform/RunLoop.h"
#include "platform/Strings.h"
#include "platform/SystemVersion.h"
#include "ui_MainView.h"

#include <QAbstractItemView>
#include <QApplication>
#include <QDialog>
#include <QFont>
#include <QHeaderView>
#include <QItemSelectionModel>
#include <QLineEdit>
#include <QProgressBar>
#include <QPushButton>
#include <QTabWidget>
#include <QTableView>
#include <QTreeView>
#include <mutex>

namespace nimbrel {

void ColumnOutlet::setDataCell(QStyledItemDelegate* cell) const
{
    if (view)
        view->setItemDelegateForColumn(column, cell);
}

namespace {

// Class initialisation: the transformers the bindings name.
void registerTransformers()
{
    static std::once_flag once;
    std::call_once(once, [] {
        ValueTransformer::setValueTransformer(std::make_shared<GrayIfYesTransformer>(),
                                              QStringLiteral("GrayIfYesTransformer"));
        ValueTransformer::setValueTransformer(std::make_shared<GrayIfNoTransformer>(),
                                              QStringLiteral("GrayIfNoTransformer"));
    });
}

} // namespace

ComQuorviaNimbrelPref::ComQuorviaNimbrelPref(const Bundle& bundle, PaneEnvironment environment)
    : m_runLoop(environment.runLoop ? environment.runLoop : &RunLoop::current()),
      m_services(std::move(environment.services))
{
    registerTransformers();
    // The guard runs before the bundle is stored: it gets the still empty field.
    PrefPaneUtilities::tigerRequired(m_bundle, kStringTable);
    m_bundle = bundle;
    m_com = std::make_unique<NimbrelCom>(this, m_bundle, m_runLoop, environment.connection);
    // The six edited dictionaries start empty (m_publishOptionsDict … m_welcomeDict).
}

ComQuorviaNimbrelPref::~ComQuorviaNimbrelPref()
{
    QObject::disconnect(m_selectionObservation);
    m_observations.clear();
    m_binder.unbindAll();
    m_runLoop->cancelAllPerformRequests(performTarget());
    m_com.reset();
}

void ComQuorviaNimbrelPref::performAfterDelay(const char* selector, double seconds,
                                              void (ComQuorviaNimbrelPref::*method)())
{
    m_runLoop->performAfterDelay(performTarget(), QByteArray(selector), seconds,
                                 [this, method] { (this->*method)(); });
}

// ---- The view ------------------------------------------------------------------------------------

QWidget* ComQuorviaNimbrelPref::loadMainView(QWidget* window)
{
    m_window = window;
    auto* view = new QWidget(window);
    Ui::MainView ui;
    ui.setupUi(view);
    m_mainView = view;

    m_startButton = ui.startButton;
    m_startIndicator = ui.startIndicator;
    m_checkButton = ui.checkButton;
    m_autoUpdateCheckbox = ui.autoUpdateCheckbox;
    m_checkIndicator = ui.checkIndicator;
    m_checkDateField = ui.checkDateField;
    m_tabView = ui.tabView;

    ui.appIcon->setPixmap(paneIcon().pixmap(48, 48));
    QFont title = ui.titleLabel->font();
    title.setPointSizeF(title.pointSizeF() * 1.4);
    title.setBold(true);
    ui.titleLabel->setFont(title);

    struct Tab
    {
        QWidget* page;
        const char* identifier;
        const char* label;
    };
    const Tab tabs[] = {{loadPublishTab(), "publish", "Publishing"},
                        {loadSubscribeTab(), "subscribe", "Subscriptions"},
                        {loadGoogleTab(), "google", "Google"},
                        {loadResetTab(), "reset", "Reset"},
                        {loadLogTab(), "log", "Log"}};
    for (const Tab& tab : tabs) {
        tab.page->setObjectName(QLatin1String(tab.identifier));
        m_tabView->addTab(tab.page, QLatin1String(tab.label));
    }
    m_welcomeSheet = loadWelcomeSheet();
    localizeTexts(view);
    localizeTexts(m_welcomeSheet);

    for (QProgressBar* indicator : view->findChildren<QProgressBar*>())
        prepareIndicator(indicator);
    prepareIndicator(m_welcomeIndicator);

    // Actions.
    QObject::connect(m_startButton, &QPushButton::clicked, this, [this] { startButton(m_startButton); });
    QObject::connect(m_checkButton, &QPushButton::clicked, this, [this] { checkButton(m_checkButton); });
    for (QPushButton* help : view->findChildren<QPushButton*>()) {
        if (help->property("tag").isValid() && help->objectName().endsWith(QLatin1String("elpButton")))
            QObject::connect(help, &QPushButton::clicked, this, [this, help] { helpButton(help); });
    }
    QObject::connect(ui.webLink, &ClickableTextField::action, this, &ComQuorviaNimbrelPref::webURL);
    QObject::connect(m_tabView, &QTabWidget::currentChanged, this,
                     &ComQuorviaNimbrelPref::tabViewDidSelectTabViewItem);

    // Bindings.
    m_binder.bindText(ui.statusLabel, QStringLiteral("statusMessage"), [this] { return statusMessage(); });
    m_binder.bindTitle(m_startButton, QStringLiteral("startButtonName"),
                       [this] { return startButtonName(); });
    m_binder.bindText(ui.versionLabel, QStringLiteral("versionString"), [this] { return versionString(); });
    m_binder.bindChecked(
        ui.menuBarCheckbox, QStringLiteral("displayMenuBar"), [this] { return displayMenuBar(); },
        [this](bool on) { setDisplayMenuBar(on); });
    m_binder.bindChecked(
        m_autoUpdateCheckbox, QStringLiteral("checkForUpdates"), [this] { return checkForUpdates(); },
        [this](bool on) { setCheckForUpdates(on); });
    return view;
}

void ComQuorviaNimbrelPref::awakeFromNib()
{
    // The window on the newer path: 668 wide, 57 taller than its content.
    if (isLeopardOrLater() && m_window) {
        const QSize content = m_window->size();
        m_window->resize(668, content.height() + 57);
    }

    // The five observations, in this order.
    if (m_subscribeOutlineView && m_subscribeOutlineView->selectionModel()) {
        m_selectionObservation = QObject::connect(
            m_subscribeOutlineView->selectionModel(), &QItemSelectionModel::selectionChanged, this,
            [this] { observeValueForKeyPath(QStringLiteral("selectionIndexPath"), m_subscribeController); });
    }
    // A key path is observed along its way too: replacing the whole dictionary changes its end.
    for (const char* keyPath : {"publishOptions.readPassword", "publishOptions.writePassword",
                                "subscribeOptions.subscribePassword", "networkSettings.portType"}) {
        const QString path = QLatin1String(keyPath);
        for (const QString& key : {path.section(QLatin1Char('.'), 0, 0), path}) {
            m_observations.push_back(observe(key, [this, path](const ChangeNotice& notice) {
                if (notice.phase == ChangePhase::Did)
                    observeValueForKeyPath(path, this);
            }));
        }
    }
}

void ComQuorviaNimbrelPref::mainViewDidLoad()
{
    // 1. The last-check date through a long-date formatter without time.
    if (m_checkDateField)
        m_binder.bindText(m_checkDateField, QStringLiteral("lastCheckedDate"),
                          [this] { return lastCheckedDateText(); });

    // 2. Double click on the publishing table opens its options (Return does the same, see the tab).
    if (m_publishTableView) {
        QObject::connect(m_publishTableView, &QAbstractItemView::doubleClicked, this,
                         [this] { publishOptionsButton(m_publishTableView); });
    }

    // 3–5. The outline's cells: engraved headings for sources, checkboxes for calendars.
    auto* sourceCell = new SourceTextFieldCell(QString());
    sourceCell->setTextColor(QColor::fromRgbF(0.31f, 0.36f, 0.43f, 1.0f));
    QFont headingFont = QApplication::font();
    headingFont.setBold(true);
    headingFont.setPointSizeF(headingFont.pointSizeF() * 0.88);
    sourceCell->setFont(headingFont);
    sourceCell->setEditable(false);
    auto* leafCell = new SourceButtonCell(QString());
    leafCell->setEditable(true);
    leafCell->setAction([this](const QModelIndex& row) { subscribeCheckbox(row); });
    // The outline's delegate decides what each cell shows.
    sourceCell->setWillDisplay([this, sourceCell](QStyleOptionViewItem& option, const QModelIndex& item) {
        outlineViewWillDisplayCell(sourceCell, option, item);
    });
    leafCell->setWillDisplay([this, leafCell](QStyleOptionViewItem& option, const QModelIndex& item) {
        outlineViewWillDisplayCell(leafCell, option, item);
    });
    if (m_sourceColumn)
        m_sourceColumn->setSourceCell(sourceCell, leafCell);
    else {
        delete sourceCell;
        delete leafCell;
    }

    // 6. The outline keeps its column width; a double click opens the subscription's options.
    if (m_subscribeOutlineView) {
        m_subscribeOutlineView->header()->setSectionResizeMode(0, QHeaderView::Stretch);
        QObject::connect(m_subscribeOutlineView, &QAbstractItemView::doubleClicked, this,
                         [this] { subscribeOptionsButton(m_subscribeOutlineView); });
    }

    // 7. The checkbox cells of the two Google tables.
    auto* publishGoogleCell = new SourceButtonCell(QString(), m_publishGoogleColumn.view);
    publishGoogleCell->setEditable(true);
    publishGoogleCell->setAction([this](const QModelIndex& row) { publishGoogleCheckbox(row); });
    publishGoogleCell->setWillDisplay([this](QStyleOptionViewItem& option, const QModelIndex& index) {
        tableViewWillDisplayCell(m_publishGoogleColumn, option, index.row());
    });
    m_publishGoogleColumn.setDataCell(publishGoogleCell);
    auto* subscribeGoogleCell = new SourceButtonCell(QString(), m_subscribeGoogleColumn.view);
    subscribeGoogleCell->setEditable(true);
    subscribeGoogleCell->setAction([this](const QModelIndex& row) { subscribeGoogleCheckbox(row); });
    subscribeGoogleCell->setWillDisplay([this](QStyleOptionViewItem& option, const QModelIndex& index) {
        tableViewWillDisplayCell(m_subscribeGoogleColumn, option, index.row());
    });
    m_subscribeGoogleColumn.setDataCell(subscribeGoogleCell);
}

// ---- Key paths -------------------------------------------------------------------------------------

QVariantMap* ComQuorviaNimbrelPref::dictionaryForKey(const QString& key)
{
    return const_cast<QVariantMap*>(std::as_const(*this).dictionaryForKey(key));
}

const QVariantMap* ComQuorviaNimbrelPref::dictionaryForKey(const QString& key) const
{
    if (key == QLatin1String("publishOptions"))
        return &m_publishOptionsDict;
    if (key == QLatin1String("subscribeOptions"))
        return &m_subscribeOptionsDict;
    if (key == QLatin1String("networkSettings"))
        return &m_networkSettingsDict;
    if (key == QLatin1String("serverSettings"))
        return &m_serverSettingsDict;
    if (key == QLatin1String("googleSettings"))
        return &m_googleSettingsDict;
    if (key == QLatin1String("welcome"))
        return &m_welcomeDict;
    return nullptr;
}

QVariant ComQuorviaNimbrelPref::valueForKeyPath(const QString& keyPath) const
{
    const QStringList parts = keyPath.split(QLatin1Char('.'));
    const QVariantMap* dictionary = dictionaryForKey(parts.value(0));
    if (!dictionary || parts.size() < 2)
        return QVariant();
    QVariant value = dictionary->value(parts.at(1));
    for (qsizetype i = 2; i < parts.size(); ++i)
        value = value.toMap().value(parts.at(i));
    return value;
}

namespace {

// Stores `value` (or removes the key when it is invalid) at `path` inside `dictionary`, making the
// dictionaries on the way as needed.
void storeAtPath(QVariantMap& dictionary, QStringList path, const QVariant& value)
{
    const QString key = path.takeFirst();
    if (!path.isEmpty()) {
        QVariantMap inner = dictionary.value(key).toMap();
        storeAtPath(inner, path, value);
        dictionary.insert(key, inner);
    } else if (value.isValid()) {
        dictionary.insert(key, value);
    } else {
        dictionary.remove(key);
    }
}

} // namespace

void ComQuorviaNimbrelPref::setValueForKeyPath(const QString& keyPath, const QVariant& value)
{
    QStringList parts = keyPath.split(QLatin1Char('.'));
    QVariantMap* dictionary = dictionaryForKey(parts.takeFirst());
    if (!dictionary || parts.isEmpty())
        return;
    willChangeValueForKey(keyPath);
    storeAtPath(*dictionary, parts, value);
    didChangeValueForKey(keyPath);
}

void ComQuorviaNimbrelPref::bindField(QLineEdit* field, const QString& keyPath)
{
    m_binder.bindLineEdit(
        field, keyPath, [this, keyPath] { return valueForKeyPath(keyPath).toString(); },
        [this, keyPath](const QString& text) { setValueForKeyPath(keyPath, text); });
}

void ComQuorviaNimbrelPref::bindBox(QAbstractButton* box, const QString& keyPath)
{
    m_binder.bindChecked(
        box, keyPath, [this, keyPath] { return boolValue(valueForKeyPath(keyPath)); },
        [this, keyPath](bool on) { setValueForKeyPath(keyPath, on); });
}

void ComQuorviaNimbrelPref::bindChoice(QComboBox* choice, const QString& keyPath)
{
    m_binder.bindComboData(
        choice, keyPath, [this, keyPath] { return valueForKeyPath(keyPath); },
        [this, keyPath](const QVariant& value) { setValueForKeyPath(keyPath, value); });
}

void ComQuorviaNimbrelPref::observeValueForKeyPath(const QString& keyPath, const void* object)
{
    if (object == m_subscribeController && keyPath == QLatin1String("selectionIndexPath")) {
        willChangeValueForKey(QStringLiteral("addServerButtonName"));
        willChangeValueForKey(QStringLiteral("subscribeOptionsEnabled"));
        didChangeValueForKey(QStringLiteral("addServerButtonName"));
        didChangeValueForKey(QStringLiteral("subscribeOptionsEnabled"));
        return;
    }
    if (object != this)
        return;
    if (keyPath == QLatin1String("publishOptions.readPassword") ||
        keyPath == QLatin1String("publishOptions.writePassword")) {
        willChangeValueForKey(QStringLiteral("publishOptionsReadAccessSummary"));
        willChangeValueForKey(QStringLiteral("publishOptionsWriteAccessSummary"));
        didChangeValueForKey(QStringLiteral("publishOptionsReadAccessSummary"));
        didChangeValueForKey(QStringLiteral("publishOptionsWriteAccessSummary"));
    } else if (keyPath == QLatin1String("subscribeOptions.subscribePassword")) {
        willChangeValueForKey(QStringLiteral("subscribeOptionsAccessSummary"));
        didChangeValueForKey(QStringLiteral("subscribeOptionsAccessSummary"));
    } else if (keyPath == QLatin1String("networkSettings.portType")) {
        if (m_networkSettingsDict.value(QStringLiteral("portType")).toInt() != 1 || !m_portField)
            return;
        m_portField->setEnabled(true);
        if (m_portField->text().toInt() == 0)
            m_portField->setText(QStringLiteral("4990"));
        m_portField->setFocus();
    }
}

} // namespace nimbrel
