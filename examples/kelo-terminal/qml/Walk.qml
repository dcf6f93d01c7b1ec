// The whole day, offscreen, one screenshot per screen (kelo-terminal --screenshots DIR):
// each step acts as the cashier would, waits until the screen shows the result, then shoots.
// A step's note(), if it has one, is written beside its screenshot (<name>.json).
import QtQuick 2.15
import QtQuick.VirtualKeyboard 2.15
import Kelo 1.0

QtObject {
    id: walk
    property KeloTerminal terminal
    property var app
    property int index: -1
    property double stepStarted: 0
    readonly property int stepTimeoutMs: 60000

    // What is left to type on the on-screen keyboard, one tap of its key per poll.
    property string typing: ""
    // The name field, the password field below it and the screens' shift when the name was
    // typed, for the note.
    property var whileTyped: ({})

    // The on-screen keyboard's visible key that types @p letter, or null.
    function key(item, letter) {
        if (!item.visible)
            return null
        if (item.hasOwnProperty("key") && item.hasOwnProperty("displayText") &&
                item.text === letter && item.enabled && item.width > 0)
            return item
        for (var i = 0; i < item.children.length; ++i) {
            var found = key(item.children[i], letter)
            if (found)
                return found
        }
        return null
    }
    // @p item's rectangle in window coordinates, for the notes.
    function sceneRect(item) {
        var r = item.mapToItem(null, 0, 0, item.width, item.height)
        return { x: r.x, y: r.y, width: r.width, height: r.height }
    }

    function table(id) {
        for (var i = 0; i < terminal.tables.count; ++i)
            if (terminal.tables.get(i).table_id === id)
                return terminal.tables.get(i)
        return null
    }

    property var steps: [
        { name: "01-login",
          run: function() {
              app.loginScreen.user = "bao"
              app.loginScreen.password = "bao123"
              app.loginScreen.role = KeloTerminal.Cashier
          },
          until: function() { return terminal.ready && terminal.connected } },
        // The cashier taps the name field and types the name on the on-screen keyboard, then
        // moves on to the password field, the lower one: both stay above the keyboard.
        { name: "01b-login-keyboard",
          run: function() {
              app.loginScreen.user = ""
              app.loginScreen.userField.forceActiveFocus()
              Qt.inputMethod.show()
              walk.typing = "bao"
          },
          until: function() {
              if (!app.inputPanel.active)
                  return false
              if (walk.typing.length > 0) {
                  var k = walk.key(app.inputPanel, walk.typing.charAt(0))
                  if (k && shell.tap(k.mapToItem(null, k.width / 2, k.height / 2)))
                      walk.typing = walk.typing.substring(1)
                  return false
              }
              if (app.loginScreen.user !== "bao")
                  return false
              if (!app.loginScreen.passwordField.activeFocus) {
                  // The name field as it was typed in, before the focus moves on.
                  walk.whileTyped = { field: walk.sceneRect(app.loginScreen.userField),
                                      next: walk.sceneRect(app.loginScreen.passwordField),
                                      focused: app.activeFocusItem === app.loginScreen.userField,
                                      shift: app.keyboardShift }
                  app.loginScreen.passwordField.forceActiveFocus()
                  Qt.inputMethod.show()
                  return false
              }
              return app.inputPanel.active && app.inputPanel.y < app.height
          },
          why: function() {
              return "keyboard up: " + app.inputPanel.active + ", left to type: \"" + walk.typing +
                     "\", name field: \"" + app.loginScreen.user + "\""
          },
          note: function() {
              return { window: { width: app.width, height: app.height },
                       focused: app.activeFocusItem === app.loginScreen.passwordField ? "password" : "other",
                       field: walk.sceneRect(app.loginScreen.passwordField),
                       userField: walk.sceneRect(app.loginScreen.userField),
                       panel: walk.sceneRect(app.inputPanel),
                       // Where a message would show now (the banner is placed while hidden too).
                       banner: walk.sceneRect(app.banner),
                       locale: InputContext.locale,
                       typed: app.loginScreen.user,
                       whileTyped: walk.whileTyped }
          } },
        { name: "",
          run: function() { Qt.inputMethod.hide(); app.loginScreen.forceActiveFocus() },
          until: function() { return !app.inputPanel.active && app.keyboardShift === 0 } },
        { name: "02-login-error",
          run: function() { app.loginScreen.password = "bao12"; app.loginScreen.submit() },
          until: function() { return app.banner.visible && !terminal.busy } },
        { name: "",
          run: function() { app.banner.hide(); app.loginScreen.password = "bao123"; app.loginScreen.submit() },
          until: function() {
              return terminal.loggedIn && !terminal.busy && terminal.menu.count > 0 &&
                     terminal.tables.count > 0 && app.menuScreen.picturesShown
          } },
        { name: "03-menu",
          run: function() {
              app.menuScreen.tableId = 1
              app.menuScreen.add(1); app.menuScreen.add(1); app.menuScreen.add(8)
          },
          until: function() { return app.menuScreen.lines.length === 2 } },
        { name: "",
          run: function() { app.menuScreen.sendOrder() },
          until: function() { var t = table(1); return !terminal.busy && t && t.status === "occupied" } },
        { name: "04-tables",
          run: function() { app.banner.hide(); app.page = "tables"; terminal.refreshTables() },
          until: function() { return !terminal.busy && terminal.tables.count === 6 } },
        { name: "05-bill",
          run: function() { terminal.loadOrders(2); app.page = "bill" },
          until: function() { return !terminal.busy && terminal.orders.tableId === 2 } },
        { name: "06-invoice-qr",
          run: function() { app.billScreen.payByWallet(2, terminal.orders.total) },
          until: function() { return app.qrDialog.opened && app.qrDialog.qrShown && !terminal.busy } },
        // The channel drops while the customer pays and comes back by itself: the dialog says
        // that the payment notice may be late.
        { name: "06-notice-late",
          run: function() { shell.dropChannel() },
          until: function() {
              return app.qrDialog.opened && app.qrDialog.noticeMayBeLate && terminal.connected
          } },
        { name: "07-paid",
          run: function() { shell.payAsCustomer(app.qrDialog.invoiceCode) },
          until: function() {
              var t = table(2)
              return !app.qrDialog.visible && app.banner.visible && app.banner.good &&
                     app.page === "tables" && !terminal.busy && t && t.status === "free"
          } },
        { name: "",
          run: function() { app.banner.hide(); terminal.logout() },
          until: function() { return !terminal.loggedIn && !terminal.busy } }
    ]

    property Timer poll: Timer {
        interval: 100
        repeat: true
        onTriggered: {
            var step = walk.steps[walk.index]
            if (step.until()) {
                stop()
                walk.settle.start()
            } else if (Date.now() - walk.stepStarted > walk.stepTimeoutMs) {
                stop()
                shell.finish(1, "the walk stopped at step " + (walk.index + 1) + " (" +
                             (step.name || "no screenshot") + "): the screen never got there" +
                             (step.why ? " (" + step.why() + ")" : ""))
            }
        }
    }
    // A moment for the last frame to be drawn before the picture is taken.
    property Timer settle: Timer {
        interval: 300
        onTriggered: {
            var name = walk.steps[walk.index].name
            if (name !== "" && !shell.saveScreenshot(name)) {
                shell.finish(1, "cannot write the screenshot " + name)
                return
            }
            var note = walk.steps[walk.index].note
            if (note && !shell.saveNote(name, note())) {
                shell.finish(1, "cannot write the note of " + name)
                return
            }
            walk.next()
        }
    }

    function start() { index = -1; next() }
    function next() {
        index++
        if (index >= steps.length) {
            shell.finish(0, "the day's walk is done: " + steps.filter(function(s) { return s.name !== "" }).length + " screenshots")
            return
        }
        stepStarted = Date.now()
        steps[index].run()
        poll.start()
    }
}
