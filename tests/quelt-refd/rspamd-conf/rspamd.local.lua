-- A Subject "rspamd-action: ACTION" makes rspamd answer ACTION.
rspamd_config.VOREX_TEST_ACTION = {
  type = 'prefilter',
  priority = 10,
  callback = function(task)
    local action = (task:get_subject() or ''):match('^rspamd%-action: (.+)$')
    if action then
      task:set_pre_result(action, 'asked by the test')
    end
  end,
}
