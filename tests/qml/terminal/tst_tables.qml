// Tables, a table's orders, ordering, merging, paying; transport failures and the deadline.
import QtQuick 2.15
import QtTest 1.15
import Kelo 1.0

TestCase {
    id: tc
    name: "Tables"
    when: terminal.ready

    KeloTerminal {
        id: terminal
        merchantId: "M01"
        machineName: "POS-Q4"
        serverHost: testCloud.hostPort
        caFile: testCloud.caFile
    }
    SignalSpy { id: tablesSpy; target: terminal; signalName: "tablesReady" }
    SignalSpy { id: ordersSpy; target: terminal; signalName: "ordersReady" }
    SignalSpy { id: placedSpy; target: terminal; signalName: "orderPlaced" }
    SignalSpy { id: mergedSpy; target: terminal; signalName: "tablesMerged" }
    SignalSpy { id: paidSpy; target: terminal; signalName: "billPaid" }
    SignalSpy { id: failedSpy; target: terminal; signalName: "failed" }

    function init() {
        testCloud.clearScripts()
        terminal.requestTimeout = 60000
        if (!terminal.loggedIn) {
            terminal.login("mai", "mai123", KeloTerminal.Waiter)
            tryCompare(terminal, "loggedIn", true, testWait)
        }
        tryCompare(terminal, "busy", false, testWait)
        tablesSpy.clear(); ordersSpy.clear(); placedSpy.clear(); mergedSpy.clear()
        paidSpy.clear(); failedSpy.clear()
    }

    function tableRow(id) {
        for (var i = 0; i < terminal.tables.count; ++i)
            if (terminal.tables.get(i).table_id === id)
                return terminal.tables.get(i)
        return null
    }

    function test_a_dayAtTheTables() {
        terminal.refreshTables()
        terminal.loadOrders(2)
        ordersSpy.wait(testWait)
        compare(tablesSpy.count, 1, "answered in the order asked")
        compare(terminal.tables.count, 6)
        compare(tableRow(2).status, "occupied")
        compare(tableRow(2).table_name, "Table 2")
        compare(ordersSpy.signalArguments[0][0], 2)
        compare(terminal.orders.tableId, 2)
        compare(terminal.orders.tableName, "Table 2")
        compare(terminal.orders.total, 188000)
        compare(terminal.orders.count, 1)
        compare(terminal.orders.get(0).amount, 188000)
        compare(terminal.orders.foods.length, 2)
        compare(terminal.orders.foods[0].item_id, 1)
        compare(terminal.orders.foods[0].qty, 2)

        terminal.order({ table_id: 1, amount: 65000, items: [ { item_id: 1, qty: 1 } ] })
        placedSpy.wait(testWait)
        compare(placedSpy.signalArguments[0][0].table_id, 1)
        compare(placedSpy.signalArguments[0][0].table_amount, 65000)

        terminal.merge(1, 3)
        mergedSpy.wait(testWait)
        compare(mergedSpy.signalArguments[0][0].moved, 1)
        compare(mergedSpy.signalArguments[0][0].amount, 65000)

        terminal.pay(3, 65000)
        terminal.refreshTables()
        tryCompare(tablesSpy, "count", 2, testWait)
        compare(paidSpy.count, 1)
        compare(paidSpy.signalArguments[0][0].total, 65000)
        compare(tableRow(3).status, "free")
        compare(tableRow(1).status, "free")
        compare(failedSpy.count, 0)
    }

    function test_b_serverRefusals_data() {
        return [
            { tag: "unknown table", act: function() { terminal.loadOrders(99) }, code: 220, text: "unknown table" },
            { tag: "merge into itself", act: function() { terminal.merge(4, 4) }, code: 221, text: "cannot merge a table into itself" },
            { tag: "order at no table", act: function() { terminal.order({ table_id: 77, amount: 1, items: [] }) }, code: 220, text: "unknown table" }
        ]
    }
    function test_b_serverRefusals(row) {
        terminal.loadOrders(2)
        ordersSpy.wait(testWait)
        row.act()
        failedSpy.wait(testWait)
        compare(failedSpy.count, 1)
        compare(failedSpy.signalArguments[0][0], row.code)
        compare(failedSpy.signalArguments[0][1], row.text)
        compare(failedSpy.signalArguments[0][2], KeloTerminal.Refusal)
        compare(terminal.orders.tableId, 2, "a refusal leaves the models as they were")
        compare(terminal.busy, false)
    }

    function test_c_transportFailureThenTheQueueGoesOn() {
        // Qt sends a request again 3 times when the connection closes before the answer.
        testCloud.reset("/kelo/api/invoice/", "get_order_list", 4)
        terminal.loadOrders(2)
        terminal.refreshTables()
        tablesSpy.wait(testWait)
        compare(failedSpy.count, 1)
        compare(failedSpy.signalArguments[0][0], 2) // RemoteHostClosedError
        compare(failedSpy.signalArguments[0][2], KeloTerminal.NetworkFailure)
        compare(ordersSpy.count, 0)
        compare(terminal.busy, false)
    }

    function test_d_noAnswerEndsAtTheDeadline() {
        testCloud.neverAnswer("/kelo/api/table/", "getlist")
        terminal.requestTimeout = 1500
        terminal.refreshTables()
        terminal.loadOrders(5)
        failedSpy.wait(testWait)
        compare(failedSpy.signalArguments[0][0], KeloTerminal.NoAnswer)
        compare(failedSpy.signalArguments[0][1], "the server did not answer in time")
        compare(tablesSpy.count, 0)
        ordersSpy.wait(testWait)
        compare(ordersSpy.signalArguments[0][0], 5)
        compare(failedSpy.count, 1)
        compare(terminal.busy, false)
    }

    function test_e_lateAnswerDoesNotEndTheNextRequest() {
        testCloud.delay("/kelo/api/table/", "getlist", 2500)
        testCloud.delay("/kelo/api/invoice/", "get_order_list", 4000)
        terminal.requestTimeout = 1000
        terminal.refreshTables()
        terminal.loadOrders(2)
        failedSpy.wait(testWait)
        compare(failedSpy.signalArguments[0][0], KeloTerminal.NoAnswer)
        terminal.requestTimeout = 60000 // the order list, now in flight, may take its time
        // The table list given up is abandoned: its late answer is never reported, and the
        // order list that is in flight keeps the terminal busy until its own answer.
        compare(terminal.busy, true)
        ordersSpy.wait(testWait)
        compare(ordersSpy.count, 1)
        compare(terminal.busy, false)
        compare(tablesSpy.count, 0)
        compare(failedSpy.count, 1)
    }
}
