// A table's bill: every dish ordered at it, the total, and the two ways to pay.
import QtQuick 2.15
import QtQuick.Controls 2.15
import QtQuick.Layouts 1.15
import Kelo 1.0
import "money.js" as Money

Item {
    id: screen
    property KeloTerminal terminal
    signal payByWallet(int tableId, real amount)
    signal payInCash(int tableId, real amount)
    signal back()

    // The bill's lines: the table's dishes added up, with the menu's names and prices.
    readonly property var lines: {
        var byId = {}, order = []
        var foods = terminal.orders.foods
        for (var i = 0; i < foods.length; ++i) {
            var id = foods[i].item_id
            if (byId[id] === undefined) {
                var dish = terminal.menu.find(id)
                byId[id] = { name: dish.item_name || qsTr("Dish %1").arg(id), price: dish.price || 0, qty: 0 }
                order.push(id)
            }
            byId[id].qty += foods[i].qty || 1
        }
        return order.map(function(id) { return byId[id] })
    }

    ColumnLayout {
        anchors.fill: parent
        anchors.margins: 20
        spacing: 12
        RowLayout {
            Label {
                text: qsTr("Bill — %1").arg(terminal.orders.tableName)
                font.pixelSize: 28; font.bold: true
                Layout.fillWidth: true
            }
            Button { objectName: "backToTables"; text: qsTr("Back to tables"); font.pixelSize: 16; onClicked: screen.back() }
        }
        Rectangle {
            Layout.fillWidth: true
            Layout.fillHeight: true
            radius: 10
            color: "white"
            border.color: "#cfd8dc"
            ListView {
                anchors.fill: parent
                anchors.margins: 16
                clip: true
                model: screen.lines
                spacing: 6
                delegate: RowLayout {
                    width: ListView.view.width
                    Label { text: modelData.qty + " ×"; font.pixelSize: 18; Layout.preferredWidth: 50 }
                    Label { text: modelData.name; font.pixelSize: 18; Layout.fillWidth: true }
                    Label { text: Money.format(modelData.price); font.pixelSize: 16; color: "#607d8b"; Layout.preferredWidth: 120; horizontalAlignment: Text.AlignRight }
                    Label { text: Money.format(modelData.price * modelData.qty); font.pixelSize: 18; Layout.preferredWidth: 140; horizontalAlignment: Text.AlignRight }
                }
                Label {
                    anchors.centerIn: parent
                    visible: screen.lines.length === 0
                    text: qsTr("Nothing ordered at this table")
                    color: "#78909c"; font.pixelSize: 18
                }
            }
        }
        RowLayout {
            spacing: 16
            Label { text: qsTr("Total"); font.pixelSize: 24; Layout.fillWidth: true }
            Label { text: Money.format(terminal.orders.total); font.pixelSize: 30; font.bold: true }
        }
        RowLayout {
            spacing: 16
            Button {
                Layout.fillWidth: true; Layout.preferredHeight: 64
                objectName: "payCash"
                text: qsTr("Paid in cash")
                font.pixelSize: 20
                enabled: terminal.orders.total > 0 && !terminal.busy
                onClicked: screen.payInCash(terminal.orders.tableId, terminal.orders.total)
            }
            Button {
                Layout.fillWidth: true; Layout.preferredHeight: 64
                objectName: "payWallet"
                text: qsTr("Pay by e-wallet (QR)")
                font.pixelSize: 20
                highlighted: true
                enabled: terminal.orders.total > 0 && !terminal.busy && terminal.invoiceCode === ""
                onClicked: screen.payByWallet(terminal.orders.tableId, terminal.orders.total)
            }
        }
    }
}
