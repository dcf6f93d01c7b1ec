// A message across the bottom of the screen: red for a problem, green for good news.
import QtQuick 2.15
import QtQuick.Controls 2.15

Rectangle {
    id: banner
    property bool good: false
    property alias text: label.text
    function show(message, isGood) {
        text = message
        good = isGood === true
        visible = true
        hideTimer.restart()
    }
    function hide() { visible = false }

    visible: false
    height: 64
    radius: 8
    color: good ? "#2e7d32" : "#b71c1c"
    Label {
        id: label
        anchors.fill: parent
        anchors.leftMargin: 20; anchors.rightMargin: 20
        verticalAlignment: Text.AlignVCenter
        wrapMode: Text.WordWrap
        color: "white"
        font.pixelSize: 18
    }
    MouseArea { anchors.fill: parent; onClicked: banner.hide() }
    Timer { id: hideTimer; interval: 8000; onTriggered: banner.hide() }
}
