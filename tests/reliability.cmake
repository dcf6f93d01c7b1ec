# Behaviour under failure: every request kind against every server fault, long outages of the
# notification channel and of picture downloads, and what must never leak or be trusted.
kelo_add_test(faultmatrix TIMEOUT 120)
kelo_add_test(security TIMEOUT 60)
kelo_add_test(soak TIMEOUT 300 LABELS slow)
# The log lines by area: categories, filter rules, the debug flags, no secrets in any of them.
kelo_add_test(logging TIMEOUT 120)
