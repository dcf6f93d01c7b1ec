// Staff login: user name, password and role, and the EN / VI language switch.
import QtQuick 2.15
import QtQuick.Controls 2.15
import QtQuick.Layouts 1.15
import QtQuick.VirtualKeyboard 2.15
import Kelo 1.0

Item {
    id: screen
    property KeloTerminal terminal
    property alias user: userField.text
    property alias password: passwordField.text
    property alias userField: userField
    property alias passwordField: passwordField
    property int role: KeloTerminal.Waiter

    // Logged in, the screen goes, and so do its fields' focus and the on-screen keyboard: Qt 6
    // keeps both on a field that is no longer shown, and the keyboard would lie over the menu.
    onVisibleChanged: {
        if (!visible && (userField.activeFocus || passwordField.activeFocus)) {
            userField.focus = false
            passwordField.focus = false
            Qt.inputMethod.hide()
        }
    }

    function submit() {
        if (user.length > 0 && !terminal.busy)
            terminal.login(user, password, role)
    }

    // The language switch, top right: the screens change language at once. The two codes are
    // the same in both languages.
    Row {
        objectName: "languageSwitch"
        anchors { top: parent.top; right: parent.right; margins: 16 }
        spacing: 4
        Repeater {
            model: ["en", "vi"]
            delegate: Button {
                objectName: "lang." + modelData
                width: 56; height: 40
                highlighted: language.code === modelData
                text: modelData.toUpperCase()
                font.pixelSize: 15; font.bold: true
                onClicked: language.code = modelData
            }
        }
    }

    Rectangle {
        width: 440; height: 400
        anchors.centerIn: parent
        radius: 12
        color: "white"
        border.color: "#cfd8dc"

        ColumnLayout {
            anchors.fill: parent
            anchors.margins: 32
            spacing: 14
            Label { text: qsTr("Staff login"); font.pixelSize: 28; font.bold: true }
            TextField {
                id: userField
                objectName: "userField"
                Layout.fillWidth: true
                placeholderText: qsTr("User name")
                font.pixelSize: 20
                inputMethodHints: Qt.ImhNoAutoUppercase | Qt.ImhNoPredictiveText
                // The password field stays above the keyboard too, for the next tap; the
                // keyboard's Enter key moves there.
                property Item keyboardKeepsAbove: passwordField
                EnterKeyAction.actionId: EnterKeyAction.Next
                onAccepted: passwordField.forceActiveFocus()
            }
            TextField {
                id: passwordField
                objectName: "passwordField"
                Layout.fillWidth: true
                placeholderText: qsTr("Password")
                echoMode: TextInput.Password
                font.pixelSize: 20
                onAccepted: screen.submit()
            }
            RowLayout {
                spacing: 12
                RadioButton {
                    objectName: "role.waiter"
                    text: qsTr("Waiter"); font.pixelSize: 18
                    checked: screen.role === KeloTerminal.Waiter
                    onClicked: screen.role = KeloTerminal.Waiter
                }
                RadioButton {
                    objectName: "role.cashier"
                    text: qsTr("Cashier"); font.pixelSize: 18
                    checked: screen.role === KeloTerminal.Cashier
                    onClicked: screen.role = KeloTerminal.Cashier
                }
            }
            Button {
                objectName: "login"
                Layout.fillWidth: true
                Layout.preferredHeight: 64
                text: terminal.busy ? qsTr("Logging in…") : qsTr("Log in")
                font.pixelSize: 22
                highlighted: true
                enabled: !terminal.busy && userField.text.length > 0
                onClicked: screen.submit()
            }
        }
    }
}
