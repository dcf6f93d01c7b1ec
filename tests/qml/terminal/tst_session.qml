// Login, logout, the busy and connection state, and refusals in words of the server.
import QtQuick 2.15
import QtTest 1.15
import Kelo 1.0

TestCase {
    id: tc
    name: "Session"
    when: terminal.ready

    KeloTerminal {
        id: terminal
        merchantId: "M01"
        machineName: "POS-Q1"
        serverHost: testCloud.hostPort
        caFile: testCloud.caFile
    }
    SignalSpy { id: loginSpy; target: terminal; signalName: "loginFinished" }
    SignalSpy { id: failedSpy; target: terminal; signalName: "failed" }
    SignalSpy { id: loggedOutSpy; target: terminal; signalName: "loggedOut" }
    SignalSpy { id: busySpy; target: terminal; signalName: "busyChanged" }

    function init() {
        if (terminal.loggedIn) {
            terminal.logout()
            tryCompare(terminal, "loggedIn", false, testWait)
        }
        tryCompare(terminal, "busy", false, testWait)
        loginSpy.clear(); failedSpy.clear(); loggedOutSpy.clear(); busySpy.clear()
    }

    function test_connectedOverTheCloudsCa() {
        // The process trusts nothing but what caFile named: a connected notification channel
        // proves the TLS trust and the server address were applied before the SDK was created.
        tryCompare(terminal, "connected", true, testWait)
    }

    function test_loginAndLogout_data() {
        return [
            { tag: "waiter", user: "mai", password: "mai123", role: KeloTerminal.Waiter, name: "Mai Nguyen" },
            { tag: "cashier", user: "bao", password: "bao123", role: KeloTerminal.Cashier, name: "Bao Tran" },
            { tag: "client", user: "kiosk", password: "kiosk123", role: KeloTerminal.Client, name: "Order Kiosk" }
        ]
    }
    function test_loginAndLogout(row) {
        terminal.login(row.user, row.password, row.role)
        compare(terminal.busy, true, "busy from the call on")
        loginSpy.wait(testWait)
        compare(loginSpy.count, 1)
        compare(loginSpy.signalArguments[0][0], 0)
        compare(loginSpy.signalArguments[0][1], "success")
        compare(terminal.loggedIn, true)
        compare(terminal.userName, row.name)
        compare(terminal.busy, false)
        compare(busySpy.count, 2, "busy went on and off once")
        terminal.logout()
        loggedOutSpy.wait(testWait)
        compare(terminal.loggedIn, false)
        compare(terminal.userName, "")
        compare(failedSpy.count, 0)
    }

    function test_refusals_data() {
        return [
            { tag: "wrong password", user: "mai", password: "nope", role: KeloTerminal.Waiter, code: 210, text: "wrong user name or password" },
            { tag: "wrong role", user: "mai", password: "mai123", role: KeloTerminal.Cashier, code: 211, text: "role not allowed for this login" }
        ]
    }
    function test_refusals(row) {
        terminal.login(row.user, row.password, row.role)
        loginSpy.wait(testWait)
        compare(loginSpy.signalArguments[0][0], row.code)
        compare(failedSpy.count, 1, "a refusal is also a failure")
        compare(failedSpy.signalArguments[0][0], row.code)
        compare(failedSpy.signalArguments[0][1], row.text)
        compare(failedSpy.signalArguments[0][2], KeloTerminal.Refusal)
        compare(terminal.loggedIn, false)
        compare(terminal.busy, false)
    }

    function test_secondLoginWaitsThenIsRefusedBySdk() {
        // Queued behind the first, the second login meets a logged-in user: the SDK's 107.
        terminal.login("mai", "mai123", KeloTerminal.Waiter)
        terminal.login("bao", "bao123", KeloTerminal.Cashier)
        failedSpy.wait(testWait)
        compare(loginSpy.count, 1)
        compare(failedSpy.count, 1)
        compare(failedSpy.signalArguments[0][0], 107)
        compare(failedSpy.signalArguments[0][1], "user 'Mai Nguyen' is logined")
        compare(terminal.userName, "Mai Nguyen")
        compare(terminal.busy, false)
    }

    function test_logoutWithoutLogin() {
        terminal.logout()
        failedSpy.wait(testWait)
        compare(failedSpy.signalArguments[0][0], 108)
        compare(loggedOutSpy.count, 0)
        compare(terminal.busy, false)
    }
}
