// The menu grid, with each dish's cached picture, and the order ticket of one table.
import QtQuick 2.15
import QtQuick.Controls 2.15
import QtQuick.Layouts 1.15
import Kelo 1.0
import "money.js" as Money

Item {
    id: screen
    property KeloTerminal terminal
    property int tableId: 1
    // The ticket: [{ itemId, name, price, qty }]
    property var lines: []
    readonly property int ticketTotal: {
        var sum = 0
        for (var i = 0; i < lines.length; ++i)
            sum += lines[i].price * lines[i].qty
        return sum
    }
    // Every picture of the grid has loaded (cached file or placeholder).
    readonly property bool picturesShown: {
        var shown = 0
        for (var i = 0; i < grid.count; ++i) {
            var cell = grid.itemAtIndex(i)
            if (cell && cell.pictureReady)
                ++shown
        }
        return grid.count > 0 && shown === grid.count && loadedTick >= 0
    }
    property int loadedTick: 0

    function add(itemId) {
        var dish = terminal.menu.find(itemId)
        if (dish.item_id === undefined)
            return
        var copy = lines.slice()
        for (var i = 0; i < copy.length; ++i) {
            if (copy[i].itemId === itemId) {
                copy[i] = { itemId: itemId, name: dish.item_name, price: dish.price, qty: copy[i].qty + 1 }
                lines = copy
                return
            }
        }
        copy.push({ itemId: itemId, name: dish.item_name, price: dish.price, qty: 1 })
        lines = copy
    }
    function sendOrder() {
        if (lines.length === 0)
            return
        var items = []
        for (var i = 0; i < lines.length; ++i)
            items.push({ item_id: lines[i].itemId, qty: lines[i].qty })
        terminal.order({ table_id: tableId, amount: ticketTotal, items: items })
    }

    Connections {
        target: terminal
        function onOrderPlaced(result) { screen.lines = [] }
    }

    GridView {
        id: grid
        anchors { left: parent.left; top: parent.top; bottom: parent.bottom; right: ticket.left }
        anchors.margins: 8
        clip: true
        cellWidth: 150
        cellHeight: 250
        model: terminal.menu
        delegate: Item {
            property bool pictureReady: picture.status === Image.Ready
            width: grid.cellWidth; height: grid.cellHeight
            Rectangle {
                anchors.fill: parent
                anchors.margins: 4
                radius: 10
                color: "white"
                border.color: "#cfd8dc"
            }
            // Shown at its own size on whole pixels: the cached picture exactly as fetched.
            Image {
                id: picture
                x: 15; y: 14
                width: 120; height: 120
                source: model.picture
                smooth: false
                fillMode: Image.PreserveAspectFit
                onStatusChanged: screen.loadedTick++
            }
            Label {
                x: 12; y: 142
                width: parent.width - 24
                text: model.item.item_name
                wrapMode: Text.WordWrap
                maximumLineCount: 2
                elide: Text.ElideRight
                font.pixelSize: 15
            }
            Label {
                x: 12; y: 196
                text: Money.format(model.item.price)
                font.pixelSize: 16
                font.bold: true
                color: "#00695c"
            }
            MouseArea {
                objectName: "dish." + model.itemId
                anchors.fill: parent
                onClicked: screen.add(model.itemId)
            }
        }
    }

    Rectangle {
        id: ticket
        width: 300
        anchors { right: parent.right; top: parent.top; bottom: parent.bottom }
        color: "#eceff1"
        ColumnLayout {
            anchors.fill: parent
            anchors.margins: 16
            spacing: 10
            Label { text: qsTr("New order"); font.pixelSize: 22; font.bold: true }
            RowLayout {
                Label { text: qsTr("Table"); font.pixelSize: 16 }
                ComboBox {
                    id: tableBox
                    objectName: "tableBox"
                    Layout.fillWidth: true
                    model: terminal.tables
                    textRole: "name"
                    valueRole: "tableId"
                    font.pixelSize: 16
                    onActivated: screen.tableId = currentValue
                    Component.onCompleted: currentIndex = indexOfValue(screen.tableId)
                    Connections {
                        target: terminal
                        function onTablesReady() { tableBox.currentIndex = tableBox.indexOfValue(screen.tableId) }
                    }
                }
            }
            ListView {
                Layout.fillWidth: true
                Layout.fillHeight: true
                clip: true
                model: screen.lines
                delegate: RowLayout {
                    width: ListView.view.width
                    Label { text: modelData.qty + " ×"; font.pixelSize: 16 }
                    Label { text: modelData.name; Layout.fillWidth: true; elide: Text.ElideRight; font.pixelSize: 16 }
                    Label { text: Money.format(modelData.price * modelData.qty); font.pixelSize: 16 }
                }
                Label {
                    anchors.centerIn: parent
                    visible: screen.lines.length === 0
                    text: qsTr("Tap a dish to add it")
                    color: "#78909c"
                    font.pixelSize: 16
                }
            }
            RowLayout {
                Label { text: qsTr("Total"); font.pixelSize: 18; Layout.fillWidth: true }
                Label { text: Money.format(screen.ticketTotal); font.pixelSize: 20; font.bold: true }
            }
            Button {
                Layout.fillWidth: true
                Layout.preferredHeight: 60
                objectName: "sendOrder"
                text: qsTr("Send order")
                font.pixelSize: 20
                highlighted: true
                enabled: screen.lines.length > 0 && !terminal.busy
                onClicked: screen.sendOrder()
            }
        }
    }
}
