<?xml version="1.0" encoding="utf-8"?>
<!DOCTYPE TS>
<TS version="2.1" language="en">
<context>
    <name>BillScreen</name>
    <message>
        <source>Dish %1</source>
        <translation>Dish %1</translation>
    </message>
    <message>
        <source>Bill — %1</source>
        <translation>Bill — %1</translation>
    </message>
    <message>
        <source>Back to tables</source>
        <translation>Back to tables</translation>
    </message>
    <message>
        <source>Nothing ordered at this table</source>
        <translation>Nothing ordered at this table</translation>
    </message>
    <message>
        <source>Total</source>
        <translation>Total</translation>
    </message>
    <message>
        <source>Paid in cash</source>
        <translation>Paid in cash</translation>
    </message>
    <message>
        <source>Pay by e-wallet (QR)</source>
        <translation>Pay by e-wallet (QR)</translation>
    </message>
</context>
<context>
    <name>ConnectionIndicator</name>
    <message>
        <source>Cloud online</source>
        <translation>Cloud online</translation>
    </message>
    <message>
        <source>Cloud offline</source>
        <translation>Cloud offline</translation>
    </message>
</context>
<context>
    <name>Errors</name>
    <message>
        <source>The cloud refused the connection. Check that the terminal is online and try again.</source>
        <translation>The cloud refused the connection. Check that the terminal is online and try again.</translation>
    </message>
    <message>
        <source>The connection to the cloud was cut. Please try again.</source>
        <translation>The connection to the cloud was cut. Please try again.</translation>
    </message>
    <message>
        <source>The cloud&apos;s address cannot be found. Check the network settings.</source>
        <translation>The cloud&apos;s address cannot be found. Check the network settings.</translation>
    </message>
    <message>
        <source>The cloud did not answer in time. Please try again.</source>
        <translation>The cloud did not answer in time. Please try again.</translation>
    </message>
    <message>
        <source>The cloud could not prove who it is (certificate not trusted). Call support.</source>
        <translation>The cloud could not prove who it is (certificate not trusted). Call support.</translation>
    </message>
    <message>
        <source>The cloud sent far too much data. Call support.</source>
        <translation>The cloud sent far too much data. Call support.</translation>
    </message>
    <message>
        <source>The cloud cannot be reached right now. Please try again.</source>
        <translation>The cloud cannot be reached right now. Please try again.</translation>
    </message>
    <message>
        <source>The terminal&apos;s security certificate is missing. Call support.</source>
        <translation>The terminal&apos;s security certificate is missing. Call support.</translation>
    </message>
    <message>
        <source>The e-wallet did not send a QR code. Cancel the payment and try again.</source>
        <translation>The e-wallet did not send a QR code. Cancel the payment and try again.</translation>
    </message>
    <message>
        <source>The cloud&apos;s answer could not be read. Please try again.</source>
        <translation>The cloud&apos;s answer could not be read. Please try again.</translation>
    </message>
    <message>
        <source>The terminal is still busy with the last request. Wait a moment and try again.</source>
        <translation>The terminal is still busy with the last request. Wait a moment and try again.</translation>
    </message>
    <message>
        <source>An e-wallet payment is already waiting. Finish or cancel it first.</source>
        <translation>An e-wallet payment is already waiting. Finish or cancel it first.</translation>
    </message>
    <message>
        <source>That payment is already being cancelled.</source>
        <translation>That payment is already being cancelled.</translation>
    </message>
    <message>
        <source>That e-wallet payment is no longer open.</source>
        <translation>That e-wallet payment is no longer open.</translation>
    </message>
    <message>
        <source>Someone is already logged in on this terminal. Log out first.</source>
        <translation>Someone is already logged in on this terminal. Log out first.</translation>
    </message>
    <message>
        <source>Nobody is logged in.</source>
        <translation>Nobody is logged in.</translation>
    </message>
    <message>
        <source>This terminal is not registered for this restaurant. Call support.</source>
        <translation>This terminal is not registered for this restaurant. Call support.</translation>
    </message>
    <message>
        <source>Wrong user name or password. Please try again.</source>
        <translation>Wrong user name or password. Please try again.</translation>
    </message>
    <message>
        <source>This account cannot log in with that role. Choose the other role.</source>
        <translation>This account cannot log in with that role. Choose the other role.</translation>
    </message>
    <message>
        <source>The cloud does not know this staff member. Log out and in again.</source>
        <translation>The cloud does not know this staff member. Log out and in again.</translation>
    </message>
    <message>
        <source>That table does not exist.</source>
        <translation>That table does not exist.</translation>
    </message>
    <message>
        <source>A table cannot be merged into itself.</source>
        <translation>A table cannot be merged into itself.</translation>
    </message>
    <message>
        <source>The e-wallet payment could not be started (security check failed). Please try again.</source>
        <translation>The e-wallet payment could not be started (security check failed). Please try again.</translation>
    </message>
    <message>
        <source>The amount to pay must be above zero.</source>
        <translation>The amount to pay must be above zero.</translation>
    </message>
    <message>
        <source>This payment method is not available.</source>
        <translation>This payment method is not available.</translation>
    </message>
    <message>
        <source>The cloud could not do that. Please try again, or call support if it keeps happening.</source>
        <translation>The cloud could not do that. Please try again, or call support if it keeps happening.</translation>
    </message>
</context>
<context>
    <name>LoginScreen</name>
    <message>
        <source>Staff login</source>
        <translation>Staff login</translation>
    </message>
    <message>
        <source>User name</source>
        <translation>User name</translation>
    </message>
    <message>
        <source>Password</source>
        <translation>Password</translation>
    </message>
    <message>
        <source>Waiter</source>
        <translation>Waiter</translation>
    </message>
    <message>
        <source>Cashier</source>
        <translation>Cashier</translation>
    </message>
    <message>
        <source>Logging in…</source>
        <translation>Logging in…</translation>
    </message>
    <message>
        <source>Log in</source>
        <translation>Log in</translation>
    </message>
</context>
<context>
    <name>MenuScreen</name>
    <message>
        <source>New order</source>
        <translation>New order</translation>
    </message>
    <message>
        <source>Table</source>
        <translation>Table</translation>
    </message>
    <message>
        <source>Tap a dish to add it</source>
        <translation>Tap a dish to add it</translation>
    </message>
    <message>
        <source>Total</source>
        <translation>Total</translation>
    </message>
    <message>
        <source>Send order</source>
        <translation>Send order</translation>
    </message>
</context>
<context>
    <name>QrDialog</name>
    <message>
        <source>Connection is back: the payment notice may be late. Ask the customer before cancelling.</source>
        <translation>Connection is back: the payment notice may be late. Ask the customer before cancelling.</translation>
    </message>
    <message>
        <source>Connection lost: the payment notice may be late.</source>
        <translation>Connection lost: the payment notice may be late.</translation>
    </message>
    <message>
        <source>Scan to pay — %1</source>
        <translation>Scan to pay — %1</translation>
    </message>
    <message>
        <source>Waiting for the customer&apos;s payment (%1)</source>
        <translation>Waiting for the customer&apos;s payment (%1)</translation>
    </message>
    <message>
        <source>Cancel payment</source>
        <translation>Cancel payment</translation>
    </message>
    <message>
        <source>Customer pays (simulator)</source>
        <translation>Customer pays (simulator)</translation>
    </message>
</context>
<context>
    <name>TablesScreen</name>
    <message>
        <source>1 order</source>
        <translation>1 order</translation>
    </message>
    <message>
        <source>%1 orders</source>
        <translation>%1 orders</translation>
    </message>
    <message>
        <source>Free</source>
        <translation>Free</translation>
    </message>
</context>
<context>
    <name>main</name>
    <message>
        <source>Kelo Terminal</source>
        <translation>Kelo Terminal</translation>
    </message>
    <message>
        <source>Order sent to the kitchen: %1</source>
        <translation>Order sent to the kitchen: %1</translation>
    </message>
    <message>
        <source>%1: %2</source>
        <translation>%1: %2</translation>
    </message>
    <message>
        <source>Kelo Terminal · %1</source>
        <translation>Kelo Terminal · %1</translation>
    </message>
    <message>
        <source>Log out</source>
        <translation>Log out</translation>
    </message>
    <message>
        <source>Menu</source>
        <translation>Menu</translation>
    </message>
    <message>
        <source>Tables</source>
        <translation>Tables</translation>
    </message>
    <message>
        <source>%1 paid in cash</source>
        <translation>%1 paid in cash</translation>
    </message>
    <message>
        <source>%1 paid by e-wallet</source>
        <translation>%1 paid by e-wallet</translation>
    </message>
    <message>
        <source>Bill of %1</source>
        <translation>Bill of %1</translation>
    </message>
    <message>
        <source>The simulator could not play the customer&apos;s payment.</source>
        <translation>The simulator could not play the customer&apos;s payment.</translation>
    </message>
    <message>
        <source>The Kelo touch-screen terminal: staff login, menu, tables, bills and e-wallet QR payments against a Kelo cloud. Start the local cloud first (kelo-cloud) and pass its address and CA, or use tools/run-terminal.sh, which starts both.</source>
        <translation>The Kelo touch-screen terminal: staff login, menu, tables, bills and e-wallet QR payments against a Kelo cloud. Start the local cloud first (kelo-cloud) and pass its address and CA, or use tools/run-terminal.sh, which starts both.</translation>
    </message>
    <message>
        <source>Cloud address host:port (default: $KELO_SERVER_HOST).</source>
        <translation>Cloud address host:port (default: $KELO_SERVER_HOST).</translation>
    </message>
    <message>
        <source>CA certificate of the cloud (default: $KELO_CA or %1).</source>
        <translation>CA certificate of the cloud (default: $KELO_CA or %1).</translation>
    </message>
    <message>
        <source>Merchant id.</source>
        <translation>Merchant id.</translation>
    </message>
    <message>
        <source>Terminal name.</source>
        <translation>Terminal name.</translation>
    </message>
    <message>
        <source>The cloud is kelo-cloud: offer to play the customer&apos;s e-wallet.</source>
        <translation>The cloud is kelo-cloud: offer to play the customer&apos;s e-wallet.</translation>
    </message>
    <message>
        <source>Walk the whole day offscreen against the simulator, write one PNG per screen into DIR, then quit (status 0 when every step succeeded).</source>
        <translation>Walk the whole day offscreen against the simulator, write one PNG per screen into DIR, then quit (status 0 when every step succeeded).</translation>
    </message>
    <message>
        <source>kelo-cloud&apos;s control token, for playing the customer against a kelo-cloud on a LAN address (it prints the token at start; default: $KELO_CLOUD_CONTROL_TOKEN; none is needed on 127.0.0.1).</source>
        <translation>kelo-cloud&apos;s control token, for playing the customer against a kelo-cloud on a LAN address (it prints the token at start; default: $KELO_CLOUD_CONTROL_TOKEN; none is needed on 127.0.0.1).</translation>
    </message>
    <message>
        <source>Language of the screens: vi or en (default: the system locale&apos;s, now %1).</source>
        <translation>Language of the screens: vi or en (default: the system locale&apos;s, now %1).</translation>
    </message>
    <message>
        <source>kelo-terminal: unknown language %1 (vi or en)
</source>
        <translation>kelo-terminal: unknown language %1 (vi or en)
</translation>
    </message>
    <message>
        <source>kelo-terminal: no cloud address: pass --server host:port or set KELO_SERVER_HOST
</source>
        <translation>kelo-terminal: no cloud address: pass --server host:port or set KELO_SERVER_HOST
</translation>
    </message>
    <message>
        <source>kelo-terminal: the user interface did not load
</source>
        <translation>kelo-terminal: the user interface did not load
</translation>
    </message>
    <message>
        <source>Keep FILE up to date with where the window&apos;s buttons, fields and keyboard keys are on the screen (JSON), for a test that taps them from outside.</source>
        <translation>Keep FILE up to date with where the window&apos;s buttons, fields and keyboard keys are on the screen (JSON), for a test that taps them from outside.</translation>
    </message>
</context>
</TS>
