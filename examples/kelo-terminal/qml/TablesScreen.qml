// The table list: free and occupied tables with their open amounts.
import QtQuick 2.15
import QtQuick.Controls 2.15
import Kelo 1.0
import "money.js" as Money

Item {
    id: screen
    property KeloTerminal terminal
    signal tableChosen(int tableId)

    GridView {
        id: grid
        anchors.fill: parent
        anchors.margins: 12
        cellWidth: Math.floor(width / 3)
        cellHeight: 170
        model: terminal.tables
        delegate: Item {
            width: grid.cellWidth; height: grid.cellHeight
            Rectangle {
                anchors.fill: parent
                anchors.margins: 8
                radius: 12
                color: model.status === "occupied" ? "#fff3e0" : "#e8f5e9"
                border.color: model.status === "occupied" ? "#ef6c00" : "#2e7d32"
                border.width: 2
                Column {
                    anchors.fill: parent
                    anchors.margins: 16
                    spacing: 8
                    Label { text: model.name; font.pixelSize: 24; font.bold: true }
                    Label {
                        objectName: "tableStatus." + model.tableId
                        text: model.status === "occupied"
                              ? (model.orderCount === 1 ? qsTr("1 order") : qsTr("%1 orders").arg(model.orderCount))
                              : qsTr("Free")
                        font.pixelSize: 17
                        color: model.status === "occupied" ? "#e65100" : "#2e7d32"
                    }
                    Label {
                        visible: model.status === "occupied"
                        text: Money.format(model.amount)
                        font.pixelSize: 22
                    }
                }
                MouseArea {
                    objectName: "table." + model.tableId
                    anchors.fill: parent
                    onClicked: screen.tableChosen(model.tableId)
                }
            }
        }
    }
}
