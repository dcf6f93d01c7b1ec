// The e-wallet QR code for the customer. It closes itself when the payment notice of its own
// invoice arrives. When the notification channel is (or was) down while it waits, it says that
// the payment notice may be late.
import QtQuick 2.15
import QtQuick.Controls 2.15
import QtQuick.Layouts 1.15
import Kelo 1.0
import "money.js" as Money

Popup {
    id: dialog
    property KeloTerminal terminal
    property string invoiceCode: ""
    property string qrSource: ""
    property real amount: 0
    property string tableName: ""
    readonly property bool qrShown: qr.status === Image.Ready
    readonly property bool noticeMayBeLate: terminal !== null && terminal.noticeMayBeLate &&
                                            terminal.invoiceCode === invoiceCode
    readonly property string noticeWarning: !noticeMayBeLate ? ""
        : terminal.connected ? qsTr("Connection is back: the payment notice may be late. Ask the customer before cancelling.")
                             : qsTr("Connection lost: the payment notice may be late.")
    signal paid(string invoiceCode)

    function showInvoice(code, source) {
        invoiceCode = code
        qrSource = source
        open()
    }

    modal: true
    closePolicy: Popup.NoAutoClose
    anchors.centerIn: Overlay.overlay
    width: 600; height: 570
    padding: 24
    background: Rectangle { radius: 14; color: "white"; border.color: "#90a4ae" }

    Connections {
        target: dialog.terminal
        function onPaymentReceived(code) {
            if (code === dialog.invoiceCode) {
                dialog.close()
                dialog.paid(code)
            }
        }
        function onInvoiceCancelled(code) {
            if (code === dialog.invoiceCode)
                dialog.close()
        }
    }

    contentItem: ColumnLayout {
        objectName: "qrDialog"
        spacing: 10
        Label {
            text: qsTr("Scan to pay — %1").arg(dialog.tableName)
            font.pixelSize: 26; font.bold: true
            Layout.alignment: Qt.AlignHCenter
        }
        Image {
            id: qr
            objectName: "qrCode"
            Layout.alignment: Qt.AlignHCenter
            source: dialog.qrSource
            sourceSize: Qt.size(300, 300)
            smooth: false
        }
        Label {
            text: Money.format(dialog.amount)
            font.pixelSize: 28; font.bold: true
            Layout.alignment: Qt.AlignHCenter
        }
        RowLayout {
            Layout.alignment: Qt.AlignHCenter
            spacing: 10
            BusyIndicator { running: dialog.visible; implicitWidth: 32; implicitHeight: 32 }
            Label {
                text: qsTr("Waiting for the customer's payment (%1)").arg(dialog.invoiceCode)
                font.pixelSize: 16; color: "#546e7a"
            }
        }
        Label {
            objectName: "noticeWarning"
            visible: dialog.noticeWarning !== ""
            text: dialog.noticeWarning
            font.pixelSize: 16; font.bold: true; color: "#e65100"
            wrapMode: Text.WordWrap
            horizontalAlignment: Text.AlignHCenter
            Layout.fillWidth: true
        }
        RowLayout {
            Layout.alignment: Qt.AlignHCenter
            spacing: 16
            Button {
                objectName: "cancelPayment"
                text: qsTr("Cancel payment")
                font.pixelSize: 16
                onClicked: dialog.terminal.cancelInvoice(dialog.invoiceCode)
            }
            Button {
                visible: shell.simulator
                objectName: "customerPays"
                text: qsTr("Customer pays (simulator)")
                font.pixelSize: 16
                onClicked: shell.payAsCustomer(dialog.invoiceCode)
            }
        }
    }
}
