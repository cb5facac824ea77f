-- Ends the command with one line on standard error and this exit status: 2 when the user
-- can mend the call, 1 when the run itself failed.
return function(status, format, ...)
    error({ status = status, message = format:format(...) }, 0)
end
