// Always visible in the header: is the terminal reaching the cloud?
import QtQuick 2.15
import QtQuick.Controls 2.15

Row {
    property bool online: false
    spacing: 8
    Rectangle {
        width: 14; height: 14; radius: 7
        anchors.verticalCenter: parent.verticalCenter
        color: online ? "#2e7d32" : "#c62828"
        border.color: "white"; border.width: 2
    }
    Label {
        anchors.verticalCenter: parent.verticalCenter
        text: online ? qsTr("Cloud online") : qsTr("Cloud offline")
        color: "white"
        font.pixelSize: 16
    }
}
