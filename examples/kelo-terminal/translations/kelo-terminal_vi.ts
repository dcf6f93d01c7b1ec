<?xml version="1.0" encoding="utf-8"?>
<!DOCTYPE TS>
<TS version="2.1" language="vi">
<context>
    <name>BillScreen</name>
    <message>
        <source>Dish %1</source>
        <translation>Món %1</translation>
    </message>
    <message>
        <source>Bill — %1</source>
        <translation>Hóa đơn — %1</translation>
    </message>
    <message>
        <source>Back to tables</source>
        <translation>Về danh sách bàn</translation>
    </message>
    <message>
        <source>Nothing ordered at this table</source>
        <translation>Bàn này chưa gọi món nào</translation>
    </message>
    <message>
        <source>Total</source>
        <translation>Tổng cộng</translation>
    </message>
    <message>
        <source>Paid in cash</source>
        <translation>Đã trả tiền mặt</translation>
    </message>
    <message>
        <source>Pay by e-wallet (QR)</source>
        <translation>Trả bằng ví điện tử (QR)</translation>
    </message>
</context>
<context>
    <name>ConnectionIndicator</name>
    <message>
        <source>Cloud online</source>
        <translation>Đã kết nối máy chủ</translation>
    </message>
    <message>
        <source>Cloud offline</source>
        <translation>Mất kết nối máy chủ</translation>
    </message>
</context>
<context>
    <name>Errors</name>
    <message>
        <source>The cloud refused the connection. Check that the terminal is online and try again.</source>
        <translation>Máy chủ từ chối kết nối. Hãy kiểm tra mạng của máy bán hàng rồi thử lại.</translation>
    </message>
    <message>
        <source>The connection to the cloud was cut. Please try again.</source>
        <translation>Kết nối tới máy chủ bị ngắt. Vui lòng thử lại.</translation>
    </message>
    <message>
        <source>The cloud&apos;s address cannot be found. Check the network settings.</source>
        <translation>Không tìm thấy địa chỉ máy chủ. Hãy kiểm tra cài đặt mạng.</translation>
    </message>
    <message>
        <source>The cloud did not answer in time. Please try again.</source>
        <translation>Máy chủ không phản hồi kịp. Vui lòng thử lại.</translation>
    </message>
    <message>
        <source>The cloud could not prove who it is (certificate not trusted). Call support.</source>
        <translation>Không xác minh được máy chủ (chứng chỉ không đáng tin cậy). Hãy gọi bộ phận hỗ trợ.</translation>
    </message>
    <message>
        <source>The cloud sent far too much data. Call support.</source>
        <translation>Máy chủ gửi về quá nhiều dữ liệu. Hãy gọi bộ phận hỗ trợ.</translation>
    </message>
    <message>
        <source>The cloud cannot be reached right now. Please try again.</source>
        <translation>Hiện không kết nối được máy chủ. Vui lòng thử lại.</translation>
    </message>
    <message>
        <source>The terminal&apos;s security certificate is missing. Call support.</source>
        <translation>Máy bán hàng thiếu chứng chỉ bảo mật. Hãy gọi bộ phận hỗ trợ.</translation>
    </message>
    <message>
        <source>The e-wallet did not send a QR code. Cancel the payment and try again.</source>
        <translation>Ví điện tử không gửi mã QR. Hãy hủy thanh toán rồi thử lại.</translation>
    </message>
    <message>
        <source>The cloud&apos;s answer could not be read. Please try again.</source>
        <translation>Không đọc được phản hồi của máy chủ. Vui lòng thử lại.</translation>
    </message>
    <message>
        <source>The terminal is still busy with the last request. Wait a moment and try again.</source>
        <translation>Máy đang xử lý yêu cầu trước. Vui lòng chờ một chút rồi thử lại.</translation>
    </message>
    <message>
        <source>An e-wallet payment is already waiting. Finish or cancel it first.</source>
        <translation>Đang có một giao dịch ví điện tử chờ thanh toán. Hãy hoàn tất hoặc hủy giao dịch đó trước.</translation>
    </message>
    <message>
        <source>That payment is already being cancelled.</source>
        <translation>Giao dịch này đang được hủy.</translation>
    </message>
    <message>
        <source>That e-wallet payment is no longer open.</source>
        <translation>Giao dịch ví điện tử này đã đóng.</translation>
    </message>
    <message>
        <source>Someone is already logged in on this terminal. Log out first.</source>
        <translation>Đã có người đăng nhập trên máy này. Hãy đăng xuất trước.</translation>
    </message>
    <message>
        <source>Nobody is logged in.</source>
        <translation>Chưa có ai đăng nhập.</translation>
    </message>
    <message>
        <source>This terminal is not registered for this restaurant. Call support.</source>
        <translation>Máy này chưa được đăng ký cho nhà hàng. Hãy gọi bộ phận hỗ trợ.</translation>
    </message>
    <message>
        <source>Wrong user name or password. Please try again.</source>
        <translation>Sai tên đăng nhập hoặc mật khẩu. Vui lòng thử lại.</translation>
    </message>
    <message>
        <source>This account cannot log in with that role. Choose the other role.</source>
        <translation>Tài khoản này không đăng nhập được với vai trò đã chọn. Hãy chọn vai trò còn lại.</translation>
    </message>
    <message>
        <source>The cloud does not know this staff member. Log out and in again.</source>
        <translation>Máy chủ không nhận ra nhân viên này. Hãy đăng xuất rồi đăng nhập lại.</translation>
    </message>
    <message>
        <source>That table does not exist.</source>
        <translation>Bàn này không tồn tại.</translation>
    </message>
    <message>
        <source>A table cannot be merged into itself.</source>
        <translation>Không thể gộp một bàn vào chính nó.</translation>
    </message>
    <message>
        <source>The e-wallet payment could not be started (security check failed). Please try again.</source>
        <translation>Không thể bắt đầu thanh toán ví điện tử (kiểm tra bảo mật không đạt). Vui lòng thử lại.</translation>
    </message>
    <message>
        <source>The amount to pay must be above zero.</source>
        <translation>Số tiền thanh toán phải lớn hơn 0.</translation>
    </message>
    <message>
        <source>This payment method is not available.</source>
        <translation>Phương thức thanh toán này hiện không dùng được.</translation>
    </message>
    <message>
        <source>The cloud could not do that. Please try again, or call support if it keeps happening.</source>
        <translation>Máy chủ không thực hiện được thao tác này. Vui lòng thử lại, nếu vẫn lỗi hãy gọi bộ phận hỗ trợ.</translation>
    </message>
</context>
<context>
    <name>LoginScreen</name>
    <message>
        <source>Staff login</source>
        <translation>Đăng nhập nhân viên</translation>
    </message>
    <message>
        <source>User name</source>
        <translation>Tên đăng nhập</translation>
    </message>
    <message>
        <source>Password</source>
        <translation>Mật khẩu</translation>
    </message>
    <message>
        <source>Waiter</source>
        <translation>Phục vụ</translation>
    </message>
    <message>
        <source>Cashier</source>
        <translation>Thu ngân</translation>
    </message>
    <message>
        <source>Logging in…</source>
        <translation>Đang đăng nhập…</translation>
    </message>
    <message>
        <source>Log in</source>
        <translation>Đăng nhập</translation>
    </message>
</context>
<context>
    <name>MenuScreen</name>
    <message>
        <source>New order</source>
        <translation>Gọi món mới</translation>
    </message>
    <message>
        <source>Table</source>
        <translation>Bàn</translation>
    </message>
    <message>
        <source>Tap a dish to add it</source>
        <translation>Chạm vào món để thêm</translation>
    </message>
    <message>
        <source>Total</source>
        <translation>Tổng cộng</translation>
    </message>
    <message>
        <source>Send order</source>
        <translation>Gửi bếp</translation>
    </message>
</context>
<context>
    <name>QrDialog</name>
    <message>
        <source>Connection is back: the payment notice may be late. Ask the customer before cancelling.</source>
        <translation>Đã kết nối lại: thông báo thanh toán có thể đến trễ. Hãy hỏi khách trước khi hủy.</translation>
    </message>
    <message>
        <source>Connection lost: the payment notice may be late.</source>
        <translation>Mất kết nối: thông báo thanh toán có thể đến trễ.</translation>
    </message>
    <message>
        <source>Scan to pay — %1</source>
        <translation>Quét mã để thanh toán — %1</translation>
    </message>
    <message>
        <source>Waiting for the customer&apos;s payment (%1)</source>
        <translation>Đang chờ khách thanh toán (%1)</translation>
    </message>
    <message>
        <source>Cancel payment</source>
        <translation>Hủy thanh toán</translation>
    </message>
    <message>
        <source>Customer pays (simulator)</source>
        <translation>Khách thanh toán (giả lập)</translation>
    </message>
</context>
<context>
    <name>TablesScreen</name>
    <message>
        <source>1 order</source>
        <translation>1 đơn</translation>
    </message>
    <message>
        <source>%1 orders</source>
        <translation>%1 đơn</translation>
    </message>
    <message>
        <source>Free</source>
        <translation>Trống</translation>
    </message>
</context>
<context>
    <name>main</name>
    <message>
        <source>Kelo Terminal</source>
        <translation>Máy bán hàng Kelo</translation>
    </message>
    <message>
        <source>Order sent to the kitchen: %1</source>
        <translation>Đã gửi món xuống bếp: %1</translation>
    </message>
    <message>
        <source>%1: %2</source>
        <translation>%1: %2</translation>
    </message>
    <message>
        <source>Kelo Terminal · %1</source>
        <translation>Máy bán hàng Kelo · %1</translation>
    </message>
    <message>
        <source>Log out</source>
        <translation>Đăng xuất</translation>
    </message>
    <message>
        <source>Menu</source>
        <translation>Thực đơn</translation>
    </message>
    <message>
        <source>Tables</source>
        <translation>Bàn</translation>
    </message>
    <message>
        <source>%1 paid in cash</source>
        <translation>%1 đã trả tiền mặt</translation>
    </message>
    <message>
        <source>%1 paid by e-wallet</source>
        <translation>%1 đã trả bằng ví điện tử</translation>
    </message>
    <message>
        <source>Bill of %1</source>
        <translation>Hóa đơn %1</translation>
    </message>
    <message>
        <source>The simulator could not play the customer&apos;s payment.</source>
        <translation>Trình giả lập không thực hiện được thanh toán của khách.</translation>
    </message>
    <message>
        <source>The Kelo touch-screen terminal: staff login, menu, tables, bills and e-wallet QR payments against a Kelo cloud. Start the local cloud first (kelo-cloud) and pass its address and CA, or use tools/run-terminal.sh, which starts both.</source>
        <translation>Máy bán hàng cảm ứng Kelo: đăng nhập nhân viên, thực đơn, bàn, hóa đơn và thanh toán ví điện tử bằng mã QR với máy chủ Kelo. Hãy chạy máy chủ cục bộ (kelo-cloud) trước rồi truyền địa chỉ và CA của nó, hoặc dùng tools/run-terminal.sh để chạy cả hai.</translation>
    </message>
    <message>
        <source>Cloud address host:port (default: $KELO_SERVER_HOST).</source>
        <translation>Địa chỉ máy chủ host:port (mặc định: $KELO_SERVER_HOST).</translation>
    </message>
    <message>
        <source>CA certificate of the cloud (default: $KELO_CA or %1).</source>
        <translation>Chứng chỉ CA của máy chủ (mặc định: $KELO_CA hoặc %1).</translation>
    </message>
    <message>
        <source>Merchant id.</source>
        <translation>Mã nhà hàng.</translation>
    </message>
    <message>
        <source>Terminal name.</source>
        <translation>Tên máy bán hàng.</translation>
    </message>
    <message>
        <source>The cloud is kelo-cloud: offer to play the customer&apos;s e-wallet.</source>
        <translation>Máy chủ là kelo-cloud: cho phép đóng vai ví điện tử của khách.</translation>
    </message>
    <message>
        <source>Walk the whole day offscreen against the simulator, write one PNG per screen into DIR, then quit (status 0 when every step succeeded).</source>
        <translation>Chạy hết một ngày làm việc không cần màn hình với trình giả lập, ghi mỗi màn hình một ảnh PNG vào DIR rồi thoát (mã trả về 0 khi mọi bước đều thành công).</translation>
    </message>
    <message>
        <source>kelo-cloud&apos;s control token, for playing the customer against a kelo-cloud on a LAN address (it prints the token at start; default: $KELO_CLOUD_CONTROL_TOKEN; none is needed on 127.0.0.1).</source>
        <translation>Mã điều khiển của kelo-cloud, để đóng vai khách hàng với một kelo-cloud trên địa chỉ mạng LAN (kelo-cloud in mã này khi khởi động; mặc định: $KELO_CLOUD_CONTROL_TOKEN; không cần trên 127.0.0.1).</translation>
    </message>
    <message>
        <source>Language of the screens: vi or en (default: the system locale&apos;s, now %1).</source>
        <translation>Ngôn ngữ giao diện: vi hoặc en (mặc định: theo ngôn ngữ hệ thống, hiện là %1).</translation>
    </message>
    <message>
        <source>kelo-terminal: unknown language %1 (vi or en)
</source>
        <translation>kelo-terminal: không có ngôn ngữ %1 (chỉ có vi hoặc en)
</translation>
    </message>
    <message>
        <source>kelo-terminal: no cloud address: pass --server host:port or set KELO_SERVER_HOST
</source>
        <translation>kelo-terminal: chưa có địa chỉ máy chủ: hãy truyền --server host:port hoặc đặt KELO_SERVER_HOST
</translation>
    </message>
    <message>
        <source>kelo-terminal: the user interface did not load
</source>
        <translation>kelo-terminal: không tải được giao diện
</translation>
    </message>
    <message>
        <source>Keep FILE up to date with where the window&apos;s buttons, fields and keyboard keys are on the screen (JSON), for a test that taps them from outside.</source>
        <translation>Cập nhật liên tục FILE với vị trí các nút, ô nhập và phím bàn phím của cửa sổ trên màn hình (JSON), cho một bài kiểm thử chạm vào chúng từ bên ngoài.</translation>
    </message>
</context>
</TS>
