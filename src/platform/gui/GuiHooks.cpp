#include "platform/gui/GuiHooks.h"

#include "platform/KeyboardState.h"

#include <QApplication>
#include <QMessageBox>
#include <QPushButton>

namespace nimbrel {

PrefPaneUtilities::AlertButton messageBoxAlert(const PrefPaneUtilities::AlertTexts& texts)
{
    QMessageBox box;
    box.setIcon(QMessageBox::Information);
    box.setWindowTitle(texts.title);
    box.setText(texts.title);
    box.setInformativeText(texts.message);
    QPushButton* quit = box.addButton(texts.defaultButton, QMessageBox::AcceptRole);
    QPushButton* moreInfo = box.addButton(texts.alternateButton, QMessageBox::ActionRole);
    box.setDefaultButton(quit);
    box.setEscapeButton(quit);
    box.exec();
    return box.clickedButton() == moreInfo ? PrefPaneUtilities::AlertButton::Alternate
                                           : PrefPaneUtilities::AlertButton::Default;
}

void installGuiPlatformHooks()
{
    PrefPaneUtilities::setStartupGuardHooks(messageBoxAlert, {}, {});
    setAlternateKeySource([] { return QGuiApplication::queryKeyboardModifiers().testFlag(Qt::AltModifier); });
}

} // namespace nimbrel
