// The e-wallet invoice: QR on screen, paid by the customer, the next one, cancel, refusals.
import QtQuick 2.15
import QtTest 1.15
import Kelo 1.0

TestCase {
    id: tc
    name: "Invoice"
    when: terminal.ready

    KeloTerminal {
        id: terminal
        merchantId: "M01"
        machineName: "POS-Q3"
        serverHost: testCloud.hostPort
        caFile: testCloud.caFile
    }
    SignalSpy { id: loginSpy; target: terminal; signalName: "loginFinished" }
    SignalSpy { id: menuSpy; target: terminal; signalName: "menuReady" }
    SignalSpy { id: invoiceSpy; target: terminal; signalName: "invoiceReady" }
    SignalSpy { id: paidSpy; target: terminal; signalName: "paymentReceived" }
    SignalSpy { id: cancelSpy; target: terminal; signalName: "invoiceCancelled" }
    SignalSpy { id: noticeSpy; target: terminal; signalName: "notified" }
    SignalSpy { id: failedSpy; target: terminal; signalName: "failed" }
    SignalSpy { id: tablesSpy; target: terminal; signalName: "tablesReady" }
    SignalSpy { id: gapSpy; target: terminal; signalName: "noticeGap" }
    SignalSpy { id: lateSpy; target: terminal; signalName: "noticeMayBeLateChanged" }

    Image { id: qr; smooth: false }

    function init() {
        testCloud.clearScripts()
        terminal.requestTimeout = 60000
        terminal.qrKey = "qr_code"
        tryCompare(terminal, "connected", true, testWait)
        if (!terminal.loggedIn) {
            terminal.login("bao", "bao123", KeloTerminal.Cashier)
            tryCompare(terminal, "loggedIn", true, testWait)
        }
        if (terminal.invoiceCode !== "") {
            terminal.cancelInvoice(terminal.invoiceCode)
            tryCompare(terminal, "invoiceCode", "", testWait)
        }
        tryCompare(terminal, "busy", false, testWait)
        loginSpy.clear(); menuSpy.clear(); invoiceSpy.clear(); paidSpy.clear()
        cancelSpy.clear(); noticeSpy.clear(); failedSpy.clear(); tablesSpy.clear()
        gapSpy.clear(); lateSpy.clear()
    }

    function openInvoice(amount) {
        var before = invoiceSpy.count
        terminal.createInvoice(amount, "Table 2", "2 x Beef noodle soup")
        tryCompare(invoiceSpy, "count", before + 1, testWait)
        return invoiceSpy.signalArguments[before]
    }

    function test_a_wholeDay() {
        terminal.refreshMenu()
        menuSpy.wait(2 * testWait)
        compare(terminal.menu.count, 8)
        for (var i = 0; i < terminal.menu.count; ++i)
            verify(String(terminal.menu.get(i).img_path).indexOf("file:") === 0)

        var shown = openInvoice(150000)
        var code = shown[0]
        verify(/^INV#\d{6}$/.test(code), code)
        compare(terminal.invoiceCode, code)
        // The simulator's QR payload, drawn by the module's image provider.
        compare(shown[1], terminal.qrSource("kelopay://pay?merchant=M01&invoice=" +
                                            encodeURIComponent(code) + "&amount=150000"))
        qr.source = shown[1]
        tryCompare(qr, "status", Image.Ready, testWait)
        verify(qr.implicitWidth >= 200)

        verify(testCloud.markPaid(code))
        paidSpy.wait(testWait)
        compare(paidSpy.count, 1)
        compare(paidSpy.signalArguments[0][0], code)
        compare(terminal.invoiceCode, "")
        compare(failedSpy.count, 0, "freeing the invoice flow is not a failure")

        // The next customer: a paid invoice does not block the next one.
        var next = openInvoice(42000)
        verify(next[0] !== code)
        compare(failedSpy.count, 0)
    }

    function test_a_paidWhileARequestIsOut() {
        var code = openInvoice(30000)[0]
        // Freeing the paid invoice's flow must not abandon the table list that is out.
        testCloud.delay("/kelo/api/table/", "getlist", 1500)
        terminal.refreshTables()
        verify(testCloud.markPaid(code))
        paidSpy.wait(testWait)
        tablesSpy.wait(testWait)
        compare(tablesSpy.count, 1)
        compare(failedSpy.count, 0)
        var next = openInvoice(31000)
        verify(next[0] !== code)
        compare(failedSpy.count, 0)
    }

    // The channel drops while the QR code waits: the terminal says at once that the notice may
    // be late, and still says so once the channel is back; the next invoice starts clean.
    function test_b_noticeMayBeLate() {
        var code = openInvoice(12000)[0]
        compare(terminal.noticeMayBeLate, false)
        compare(testCloud.dropWebSockets(), 1)
        tryCompare(gapSpy, "count", 1, testWait)
        compare(gapSpy.signalArguments[0][0], code)
        compare(gapSpy.signalArguments[0][1], true)
        compare(terminal.noticeMayBeLate, true)
        tryCompare(terminal, "connected", true, testWait)
        tryCompare(gapSpy, "count", 2, testWait)
        compare(gapSpy.signalArguments[1][0], code)
        compare(gapSpy.signalArguments[1][1], false)
        compare(terminal.noticeMayBeLate, true)
        compare(lateSpy.count, 1)
        terminal.cancelInvoice(code)
        cancelSpy.wait(testWait)
        compare(terminal.noticeMayBeLate, false)
        compare(lateSpy.count, 2)
        compare(paidSpy.count, 0)
        compare(failedSpy.count, 0)
    }

    function test_b_onlyTheInvoiceOnScreenIsReported() {
        var code = openInvoice(10000)[0]
        compare(testCloud.pushAll('{"dt":{"invoice_code":"INV#999999"},"err":0,"msg":"payment_success","type":1}') > 0, true)
        testCloud.pushAll('{"dt":{},"err":0,"msg":"menu_changed","type":1}')
        noticeSpy.wait(testWait)
        compare(noticeSpy.signalArguments[0][0], "menu_changed")
        compare(paidSpy.count, 0)
        compare(terminal.invoiceCode, code)
    }

    function test_c_cancel() {
        var code = openInvoice(20000)[0]
        terminal.cancelInvoice(code)
        cancelSpy.wait(testWait)
        compare(cancelSpy.signalArguments[0][0], code)
        compare(terminal.invoiceCode, "")
        // Paying a cancelled invoice is impossible, so nothing is reported.
        compare(testCloud.markPaid(code), false)
        openInvoice(30000)
        compare(failedSpy.count, 0)
    }

    function test_d_refusals_data() {
        return [
            { tag: "unknown code", act: function() { terminal.cancelInvoice("INV#000777") }, code: 105,
              text: "kelo cancel invoice code not existed (INV#000777)" },
            { tag: "second invoice", act: function() { openInvoice(5000); terminal.createInvoice(6000, "x", "y") }, code: 103,
              text: "kelo process tumipay busy" },
            { tag: "zero amount", act: function() { terminal.createInvoice(0, "x", "y") }, code: 233,
              text: "invalid invoice amount" }
        ]
    }
    function test_d_refusals(row) {
        row.act()
        failedSpy.wait(testWait)
        compare(failedSpy.count, 1)
        compare(failedSpy.signalArguments[0][0], row.code)
        compare(failedSpy.signalArguments[0][1], row.text)
        tryCompare(terminal, "busy", false, testWait)
    }

    function test_e_qrKey() {
        terminal.qrKey = "no_such_field"
        terminal.createInvoice(7000, "x", "y")
        failedSpy.wait(testWait)
        compare(failedSpy.signalArguments[0][0], KeloTerminal.QrPayloadMissing)
        compare(failedSpy.signalArguments[0][2], KeloTerminal.TerminalError)
        compare(invoiceSpy.count, 0)
        verify(terminal.invoiceCode !== "", "the invoice is open and can be cancelled")

        terminal.cancelInvoice(terminal.invoiceCode)
        cancelSpy.wait(testWait)
        terminal.qrKey = "invoice_code"
        var shown = openInvoice(8000)
        compare(shown[1], terminal.qrSource(shown[0]))
    }

    function test_f_refusedSessionEndsAtTheDeadline() {
        // A refused invoice session makes the SDK emit nothing at all: the terminal's deadline
        // ends the request, and the next invoice goes through.
        testCloud.answer("/kelo/api/invoice/", "get_session", '{"dt":{},"err":232,"msg":"no session"}')
        terminal.requestTimeout = 1500
        terminal.createInvoice(9000, "x", "y")
        failedSpy.wait(testWait)
        compare(failedSpy.signalArguments[0][0], KeloTerminal.NoAnswer)
        compare(terminal.busy, false)
        terminal.requestTimeout = 60000
        openInvoice(9000)
        compare(failedSpy.count, 1)
    }
}
