// The menu model: dishes with their cached pictures, the placeholder, queued refreshes.
import QtQuick 2.15
import QtTest 1.15
import Kelo 1.0

TestCase {
    id: tc
    name: "Menu"
    when: terminal.ready

    KeloTerminal {
        id: terminal
        merchantId: "M01"
        machineName: "POS-Q2"
        serverHost: testCloud.hostPort
        caFile: testCloud.caFile
    }
    SignalSpy { id: menuSpy; target: terminal; signalName: "menuReady" }
    SignalSpy { id: failedSpy; target: terminal; signalName: "failed" }
    SignalSpy { id: countSpy; target: terminal.menu; signalName: "countChanged" }

    // What a menu grid does with the model: one Image per dish.
    Repeater {
        id: pictures
        model: terminal.menu
        delegate: Image { source: model.picture; property int dish: model.itemId; property bool onDisk: model.cached }
    }

    function init() {
        testCloud.clearScripts()
        menuSpy.clear(); failedSpy.clear(); countSpy.clear()
    }

    function allPicturesShown() {
        for (var i = 0; i < pictures.count; ++i)
            if (pictures.itemAt(i).status !== Image.Ready)
                return false
        return pictures.count > 0
    }

    function test_a_menuWithCachedPictures() {
        testCloud.clearPictureCache()
        terminal.refreshMenu()
        menuSpy.wait(2 * testWait)
        compare(failedSpy.count, 0)
        compare(terminal.menu.count, 8)
        compare(countSpy.count, 1)
        for (var i = 0; i < terminal.menu.count; ++i) {
            var item = terminal.menu.get(i)
            var id = item.item_id
            // A plain file URL of the cache's file, never the SDK's four-slash form.
            compare(String(pictures.itemAt(i).source), "file://" + testCloud.images + "/" + id + ".png")
            compare(pictures.itemAt(i).dish, id)
            compare(pictures.itemAt(i).onDisk, true)
            verify(item.item_name.length > 0)
            verify(item.price > 0)
        }
        compare(terminal.menu.find(6).item_name, "Caramelised fish in clay pot")
        compare(Object.keys(terminal.menu.find(99)).length, 0)
        tryVerify(allPicturesShown, 10000, "every cached picture loads")
        compare(pictures.itemAt(0).sourceSize.width, 120)
    }

    function test_b_brokenPictureShowsThePlaceholder() {
        testCloud.clearPictureCache()
        testCloud.answer("/img/items/3.png", "", "gone", 404, 4)
        terminal.refreshMenu()
        menuSpy.wait(2 * testWait)
        compare(failedSpy.count, 0, "a missing picture is not a failure")
        var shown = 0
        for (var i = 0; i < pictures.count; ++i) {
            var image = pictures.itemAt(i)
            if (image.dish === 3) {
                compare(String(image.source), "qrc:/icons/images/defaultfood.png")
                compare(image.onDisk, false)
            } else {
                compare(image.onDisk, true)
            }
        }
        // The placeholder the SDK names is part of the module: it loads like any picture.
        tryVerify(allPicturesShown, 10000, "the placeholder loads")
    }

    function test_c_refreshesRunOneAfterTheOther() {
        // Straight into the SDK the second would be refused (102) while the first one's
        // pictures are fetched; the terminal runs it after the first.
        terminal.refreshMenu()
        terminal.refreshMenu()
        compare(terminal.busy, true)
        tryCompare(menuSpy, "count", 2, 2 * testWait)
        compare(failedSpy.count, 0)
        compare(terminal.busy, false)
        compare(testCloud.requests("/kelo/api/item/", "getlist") >= 2, true)
    }

    function test_d_refusedMenuKeepsTheModel() {
        testCloud.answer("/kelo/api/item/", "getlist", '{"dt":{},"err":203,"msg":"unknown merchant"}')
        terminal.refreshMenu()
        failedSpy.wait(testWait)
        compare(failedSpy.signalArguments[0][0], 203)
        compare(failedSpy.signalArguments[0][1], "unknown merchant")
        compare(menuSpy.count, 0)
        compare(terminal.menu.count, 8, "the last menu stays")
        compare(terminal.busy, false)
    }
}
