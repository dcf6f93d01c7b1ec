// The terminal's window: a 1024x600 landscape touch screen.
import QtQuick 2.15
import QtQuick.Controls 2.15
import QtQuick.Layouts 1.15
import QtQuick.Window 2.15
import QtQuick.VirtualKeyboard 2.15
import QtQuick.VirtualKeyboard.Settings 2.15
import Kelo 1.0
import "errors.js" as Errors
import "money.js" as Money

ApplicationWindow {
    id: window
    width: 1024
    height: 600
    minimumWidth: 1024; maximumWidth: 1024
    minimumHeight: 600; maximumHeight: 600
    visible: true
    title: qsTr("Kelo Terminal")
    color: "#f5f7f8"
    font.pixelSize: 16
    // Buttons that matter are large, teal and white-lettered.
    palette.dark: "#00897b"
    palette.mid: "#b2dfdb"
    palette.button: "#e0e6e9"
    palette.brightText: "white"
    palette.highlight: "#00897b"

    // Where the cashier is: "menu", "tables" or "bill" (after login).
    property string page: "menu"
    // The bill being paid by e-wallet, settled in the till once the customer has paid.
    property int walletTable: -1
    property real walletAmount: 0
    // How the bill being settled was paid, for the message once the till has it.
    property string paymentNote: ""
    // The screens move up by this much while the on-screen keyboard is up, so that the field
    // being typed in ends keyboardMargin above the keyboard. A field may name another that stays
    // above the keyboard with it (keyboardKeepsAbove: the form's next field), so that a finger
    // can move on to it: the keyboard would take the tap otherwise. The keyboard itself never
    // moves: it is the bottom of the window.
    readonly property int keyboardMargin: 12
    readonly property real keyboardShift: {
        var field = window.activeFocusItem
        if (!inputPanel.active || !field || field === content)
            return 0
        if (field.keyboardKeepsAbove)
            field = field.keyboardKeepsAbove
        var r = field.mapToItem(content, 0, 0, field.width, field.height)
        return Math.max(0, r.y + r.height + keyboardMargin - inputPanel.y)
    }

    KeloTerminal {
        id: terminal
        merchantId: shell.merchantId
        machineName: shell.machineName
        serverHost: shell.serverHost
        caFile: shell.caFile

        onLoginFinished: {
            if (code === 0) {
                window.page = "menu"
                terminal.refreshMenu()
                terminal.refreshTables()
                login.password = ""
            }
        }
        onLoggedOut: window.page = "menu"
        onFailed: banner.show(Errors.describe(code, message, origin), false)
        onOrderPlaced: {
            banner.show(qsTr("Order sent to the kitchen: %1").arg(Money.format(result.amount)), true)
            terminal.refreshTables()
        }
        onInvoiceReady: qrDialog.showInvoice(invoiceCode, qrSource)
        onBillPaid: {
            banner.show(qsTr("%1: %2").arg(window.paymentNote).arg(Money.format(result.amount)), true)
            window.page = "tables"
            terminal.refreshTables()
        }
    }

    // ---- header: always visible -------------------------------------------------------------
    header: ToolBar {
        height: 56
        background: Rectangle { color: "#263238" }
        RowLayout {
            anchors.fill: parent
            anchors.leftMargin: 20; anchors.rightMargin: 16
            spacing: 20
            Label {
                text: qsTr("Kelo Terminal · %1").arg(shell.machineName)
                color: "white"; font.pixelSize: 20; font.bold: true
            }
            Item { Layout.fillWidth: true }
            ConnectionIndicator { online: terminal.connected }
            Label {
                visible: terminal.loggedIn
                text: terminal.userName
                color: "#b0bec5"; font.pixelSize: 16
            }
            ToolButton {
                objectName: "logout"
                visible: terminal.loggedIn
                font.pixelSize: 16
                contentItem: Label { text: qsTr("Log out"); color: "white"; font.pixelSize: 16; font.underline: true }
                background: Item {}
                onClicked: terminal.logout()
            }
        }
    }

    // Room kept for a message at the bottom: the screens end above it rather than under it, so
    // that it never covers their buttons (the bill's pay buttons, the ticket's "Send order"),
    // where a finger would dismiss the message instead of pressing the button. While the
    // keyboard is up the message is at the top, over the screens.
    readonly property real bannerRoom: banner.visible && !inputPanel.active ? banner.height + 32 : 0

    // Everything below the header; moves up while the keyboard would cover the focused field.
    Item {
        id: content
        width: parent.width
        height: parent.height - window.bannerRoom
        y: -window.keyboardShift

        LoginScreen {
            id: login
            anchors.fill: parent
            visible: !terminal.loggedIn
            terminal: terminal
        }

        // ---- after login: a rail of pages and the page -------------------------------------------
        Item {
            anchors.fill: parent
            visible: terminal.loggedIn

            Rectangle {
                id: rail
                width: 96
                anchors { left: parent.left; top: parent.top; bottom: parent.bottom }
                color: "#37474f"
                Column {
                    anchors.top: parent.top; anchors.topMargin: 12
                    width: parent.width
                    spacing: 8
                    Repeater {
                        model: [ { page: "menu", label: qsTr("Menu") }, { page: "tables", label: qsTr("Tables") } ]
                        delegate: Rectangle {
                            width: 80; height: 72; radius: 10
                            x: 8
                            color: window.page === modelData.page || (modelData.page === "tables" && window.page === "bill")
                                   ? "#00897b" : "transparent"
                            Label {
                                anchors.centerIn: parent
                                width: parent.width - 8
                                horizontalAlignment: Text.AlignHCenter
                                text: modelData.label
                                color: "white"; font.pixelSize: 17
                                // "Thực đơn" is about as wide as the rail: shrink rather than touch.
                                fontSizeMode: Text.HorizontalFit; minimumPixelSize: 12
                            }
                            MouseArea {
                                objectName: "rail." + modelData.page
                                anchors.fill: parent
                                onClicked: {
                                    window.page = modelData.page
                                    if (modelData.page === "tables")
                                        terminal.refreshTables()
                                }
                            }
                        }
                    }
                }
            }

            StackLayout {
                anchors { left: rail.right; right: parent.right; top: parent.top; bottom: parent.bottom }
                currentIndex: window.page === "menu" ? 0 : window.page === "tables" ? 1 : 2
                MenuScreen { id: menuScreen; terminal: terminal }
                TablesScreen {
                    id: tablesScreen
                    terminal: terminal
                    onTableChosen: {
                        terminal.loadOrders(tableId)
                        window.page = "bill"
                    }
                }
                BillScreen {
                    id: billScreen
                    terminal: terminal
                    onBack: { window.page = "tables"; terminal.refreshTables() }
                    onPayInCash: {
                        window.paymentNote = qsTr("%1 paid in cash").arg(terminal.orders.tableName)
                        terminal.pay(tableId, amount)
                    }
                    onPayByWallet: {
                        window.walletTable = tableId
                        window.walletAmount = amount
                        window.paymentNote = qsTr("%1 paid by e-wallet").arg(terminal.orders.tableName)
                        qrDialog.amount = amount
                        qrDialog.tableName = terminal.orders.tableName
                        terminal.createInvoice(amount, terminal.orders.tableName,
                                               qsTr("Bill of %1").arg(terminal.orders.tableName))
                    }
                }
            }
        }

    } // content

    // The on-screen keyboard, inside the window (not a window of its own): drawn with the
    // screens, on eglfs and linuxfb too, and in the screenshots. It opens for every text field
    // (the input method shows it when a field takes focus) in the screens' language.
    InputPanel {
        id: inputPanel
        objectName: "inputPanel"
        z: 100
        width: parent.width
        y: active ? parent.height - height : parent.height
    }
    Binding {
        target: VirtualKeyboardSettings
        property: "activeLocales"
        value: ["vi_VN", "en_US"]
    }
    Binding {
        target: VirtualKeyboardSettings
        property: "locale"
        value: language.code === "vi" ? "vi_VN" : "en_US"
    }

    QrDialog {
        id: qrDialog
        terminal: terminal
        // The customer has paid: the bill is settled in the till.
        onPaid: terminal.pay(window.walletTable, window.walletAmount)
    }

    Connections {
        target: shell
        function onCustomerPaid(ok, answer) {
            if (!ok)
                banner.show(qsTr("The simulator could not play the customer's payment."), false)
        }
    }

    Banner {
        id: banner
        objectName: "banner"
        anchors { left: parent.left; right: parent.right; margins: 16 }
        // At the bottom. While the on-screen keyboard is up, at the top: the keyboard has the
        // bottom, and the field being typed in is just above it (keyboardShift).
        y: inputPanel.active ? 16 : parent.height - height - 16
        z: 10
    }

    Walk {
        id: walk
        terminal: terminal
        app: window
        Component.onCompleted: if (shell.screenshotDir !== "") walk.start()
    }

    // For the walk.
    property alias loginScreen: login
    property alias menuScreen: menuScreen
    property alias billScreen: billScreen
    property alias qrDialog: qrDialog
    property alias banner: banner
    property alias inputPanel: inputPanel
}
