# Notification channel: the WebSocket client against the local cloud.
kelo_add_test(wsclient TIMEOUT 120)
