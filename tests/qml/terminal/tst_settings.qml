// A terminal whose CA file cannot be read does not start.
import QtQuick 2.15
import QtTest 1.15
import Kelo 1.0

TestCase {
    name: "Settings"

    Component {
        id: terminalWithCa
        KeloTerminal {
            property int failure: 0
            property string failureText: ""
            merchantId: "M01"
            machineName: "POS-Q5"
            serverHost: testCloud.hostPort
            onFailed: { failure = code; failureText = message }
        }
    }

    function test_unreadableCaFile() {
        var t = createTemporaryObject(terminalWithCa, this, { caFile: "/nonexistent/kelo-ca.pem" })
        compare(t.failure, KeloTerminal.CaFileUnreadable)
        compare(t.failureText, "cannot read a CA certificate from /nonexistent/kelo-ca.pem")
        compare(t.ready, false)
        t.refreshTables()
        compare(t.busy, true, "requests wait for a terminal that never starts")
    }

    function test_fileUrlCaFile() {
        var t = createTemporaryObject(terminalWithCa, this, { caFile: "file://" + testCloud.caFile })
        compare(t.failure, 0)
        compare(t.ready, true)
        t.refreshTables()
        tryCompare(t, "busy", false, testWait)
        compare(t.failure, 0)
        compare(t.tables.count, 6)
    }
}
