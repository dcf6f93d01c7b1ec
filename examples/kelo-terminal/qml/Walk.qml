// The whole day, offscreen, one screenshot per screen (kelo-terminal --screenshots DIR):
// each step acts as the cashier would, waits until the screen shows the result, then shoots.
import QtQuick 2.15
import Kelo 1.0

QtObject {
    id: walk
    property KeloTerminal terminal
    property var app
    property int index: -1
    property double stepStarted: 0
    readonly property int stepTimeoutMs: 60000

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
                             (step.name || "no screenshot") + "): the screen never got there")
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
