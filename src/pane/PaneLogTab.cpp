// ComQuorviaNimbrelPref: the log tab — Nimbrel's filtered log appended as it grows, polled once a
// second while the tab shows, and the logs mailed to support.

#include "logging/Log.h"
#include "pane/ComQuorviaNimbrelPref.h"
#include "pane/Sheets.h"
#include "platform/RunLoop.h"
#include "ui_LogTab.h"

#include <QFileInfo>
#include <QFontDatabase>
#include <QPlainTextEdit>
#include <QProgressBar>
#include <QPushButton>
#include <QScrollBar>
#include <QStringDecoder>
#include <QTabWidget>
#include <QTextCursor>
#include <cstdio>
#include <sys/stat.h>

namespace nimbrel {

namespace {

inline constexpr qsizetype kLogChunk = 4096;
inline constexpr double kLogTimerInterval = 1.0;
const QString kLogName = QStringLiteral("Nimbrel");

// Appends a chunk to `out` as text: UTF-8, else 7-bit ASCII; false (nothing appended) when it is
// neither. Decodes straight into the buffer: an 8 MiB log is one copy, not three.
bool appendChunk(QString& out, const char* bytes, qsizetype size)
{
    const qsizetype start = out.size();
    out.resize(start + size); // UTF-8 never yields more UTF-16 units than bytes
    QStringDecoder utf8(QStringDecoder::Utf8, QStringDecoder::Flag::Stateless);
    QChar* end = utf8.appendToBuffer(out.data() + start, QByteArrayView(bytes, size));
    if (!utf8.hasError()) {
        out.resize(end - out.constData());
        return true;
    }
    out.resize(start);
    for (qsizetype i = 0; i < size; ++i) {
        if (static_cast<unsigned char>(bytes[i]) > 0x7f)
            return false;
    }
    out += QLatin1String(bytes, size);
    return true;
}

} // namespace

QWidget* ComQuorviaNimbrelPref::loadLogTab()
{
    auto* tab = new QWidget;
    Ui::LogTab ui;
    ui.setupUi(tab);
    m_logTextView = ui.logTextView;
    m_logTextView->setFont(QFontDatabase::systemFont(QFontDatabase::FixedFont));
    m_emailButton = ui.emailButton;
    m_emailIndicator = ui.emailIndicator;
    QObject::connect(m_emailButton, &QPushButton::clicked, this, [this] { emailButton(QVariant()); });
    return tab;
}

bool ComQuorviaNimbrelPref::logPaneShowing() const
{
    return m_tabView && m_tabView->currentWidget() &&
           m_tabView->currentWidget()->objectName() == QLatin1String("log");
}

void ComQuorviaNimbrelPref::updateLogView()
{
    if (!logPaneShowing())
        return; // polling stops by itself once the tab is left
    std::FILE* file = std::fopen(QFile::encodeName(filteredLogFilePath(kLogName)).constData(), "r");
    if (!file)
        return; // no timer: the next selection tries again
    if (fseeko(file, static_cast<off_t>(m_logSize), SEEK_SET) != 0) {
        std::fclose(file);
        setLogTimer();
        return;
    }
    // Chunks of 4 096 bytes; what decodes is appended at the end in one edit, what does not is
    // skipped but counted.
    QString appended;
    struct stat status = {};
    if (fstat(fileno(file), &status) == 0 && status.st_size > static_cast<off_t>(m_logSize))
        appended.reserve(static_cast<qsizetype>(status.st_size - static_cast<off_t>(m_logSize)));
    quint64 total = 0;
    char buffer[kLogChunk];
    size_t count = 0;
    do {
        count = std::fread(buffer, 1, sizeof buffer, file);
        if (count > 0) {
            appendChunk(appended, buffer, static_cast<qsizetype>(count));
            total += count;
        }
    } while (count == sizeof buffer);
    m_logSize += total;
    std::fclose(file);

    if (!appended.isEmpty() && m_logTextView) {
        // Appending must not move what the user looks at: the view scrolls only by itself.
        QScrollBar* vertical = m_logTextView->verticalScrollBar();
        const int scroll = vertical->value();
        QTextCursor end(m_logTextView->document());
        end.movePosition(QTextCursor::End);
        end.insertText(appended);
        vertical->setValue(scroll);
    }
    setLogTimer();
}

void ComQuorviaNimbrelPref::setLogTimer()
{
    // A new one-shot timer; one already pending is not cancelled, only no longer referenced.
    const QByteArray timer = QByteArrayLiteral("logTimer:") + QByteArray::number(++m_logTimerSerial);
    m_logTimer = timer;
    m_runLoop->performAfterDelay(performTarget(), timer, kLogTimerInterval,
                                 [this, timer] { logTimer(timer); });
}

void ComQuorviaNimbrelPref::cancelLogTimer()
{
    if (!m_logTimer.isEmpty())
        m_runLoop->cancelPreviousPerformRequests(performTarget(), m_logTimer);
    m_logTimer.clear();
}

void ComQuorviaNimbrelPref::logTimer(const QByteArray& timer)
{
    Q_UNUSED(timer);
    m_logTimer.clear();
    updateLogView();
}

void ComQuorviaNimbrelPref::clearLogView()
{
    if (m_logTextView)
        m_logTextView->clear();
    m_logSize = 0;
}

void ComQuorviaNimbrelPref::tabViewDidSelectTabViewItem(int index)
{
    Q_UNUSED(index);
    updateLogView();
}

void ComQuorviaNimbrelPref::emailButton(const QVariant& sender)
{
    m_com->techSupportInfo();
    setEnabledIfLoaded(m_emailButton, false);
    startAnimation(m_emailIndicator);
    const QString subject =
        sender.typeId() == QMetaType::QString ? sender.toString() : QStringLiteral("Nimbrel Logs");
    m_services.emailLogFiles(QFileInfo(logFilePath(kLogName)).absolutePath(),
                             m_bundle.pathForResource(QStringLiteral("EmailLogScript"), QStringLiteral("sh")),
                             subject, filteredLogFilePath(kLogName), true,
                             m_bundle.objectForInfoDictionaryKey(QStringLiteral("LogsEMail")).toString());
    setEnabledIfLoaded(m_emailButton, true);
    stopAnimation(m_emailIndicator);
}

} // namespace nimbrel
