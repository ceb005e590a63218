#pragma once

// Sheets, alerts and progress indicators the way the pane uses them: every sheet and alert is
// window-modal on the pane's window and ends with the tag of the button that closed it; a progress
// indicator is a busy bar shown only while it animates.

#include <QString>
#include <functional>

class QComboBox;
class QDialog;
class QMessageBox;
class QObject;
class QProgressBar;
class QWidget;

namespace nimbrel {

// Return codes of the alerts: the default button, the alternate one, any other way out.
inline constexpr int kAlertDefaultReturn = 1;
inline constexpr int kAlertAlternateReturn = 0;
inline constexpr int kAlertOtherReturn = -1;

// The tag of a button (its "tag" property; 0 when it has none).
int tagOf(const QObject* sender);

// Shows `sheet` window-modal on `window` without blocking; `didEnd` runs once, with the code the sheet
// ends with (endSheet, or 0 when the user closes it otherwise).
// `didEnd` is dropped when `context` (the pane) is gone by then.
void beginSheet(QDialog* sheet, QWidget* window, QObject* context, std::function<void(int code)> didEnd);
// Ends a sheet with `code` (a button's tag).
void endSheet(QDialog* sheet, int code);

struct AlertTexts
{
    QString title;
    QString defaultButton;
    QString alternateButton; // none when empty
    QString message;
    bool warning = false; // a warning rather than an informational alert
};
// An alert as a sheet on `window`; `didEnd` gets kAlertDefaultReturn or kAlertAlternateReturn. The
// alert deletes itself when it ends.
QMessageBox* beginAlertSheet(QWidget* window, QObject* context, const AlertTexts& texts,
                             std::function<void(int code)> didEnd);

void startAnimation(QProgressBar* indicator);
void stopAnimation(QProgressBar* indicator);
bool isAnimating(const QProgressBar* indicator);

} // namespace nimbrel

namespace nimbrel {
// Replaces every user-visible text below `root` (labels, buttons, titles, tool tips, tab titles) by its
// entry in the string table; texts written into the interface files are the table's keys.
void localizeTexts(QWidget* root);
// Enables or disables a control the view may not have loaded (a pane without its view).
void setEnabledIfLoaded(QWidget* control, bool enabled);
// Hides a progress indicator without letting the layout close the gap it leaves.
void prepareIndicator(QProgressBar* indicator);
// The choices of a sync interval ("syncInterval": 0 every 5 minutes, 1 every 15 minutes, 2 every hour,
// 3 once a day); the background application reads the same numbers.
void addSyncIntervalChoices(QComboBox* choice);
} // namespace nimbrel
