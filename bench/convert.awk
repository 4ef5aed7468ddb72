# What an operator would run instead of the service: the same conversion of
# audit lines into per-container event lines, as one awk program.
#
#   TZ=Europe/Berlin awk -f bench/convert.awk audit.log > events.log
#   TZ=Europe/Berlin awk -v flush=1 -f bench/convert.awk audit.log > events.log
#
# It keeps the service's rules (the first "type=", quoted or bare field values,
# the first braces, the first word after "avc:", duplicates of container, path
# and second dropped through a cache emptied after 1001 keys), so that on the
# benchmark workload its output is byte for byte the service's. With flush=1
# every event line is flushed at once, as the service does.

# Value of key=: up to the closing quote when quoted, else up to a blank, tab,
# comma or colon.
function field(line, key,    at, rest, end) {
    at = index(line, key "=")
    if (at == 0)
        return ""
    rest = substr(line, at + length(key) + 1)
    if (substr(rest, 1, 1) == "\"") {
        rest = substr(rest, 2)
        end = index(rest, "\"")
        return end ? substr(rest, 1, end - 1) : ""
    }
    if (match(rest, /[ \t,:]/))
        return substr(rest, 1, RSTART - 1)
    return rest
}

# The file name of an access-vector record: a bare value ends only at a blank.
function name_value(line,    at, rest, end) {
    at = index(line, "name=")
    if (at == 0)
        return ""
    rest = substr(line, at + 5)
    if (substr(rest, 1, 1) == "\"") {
        rest = substr(rest, 2)
        end = index(rest, "\"")
        return end ? substr(rest, 1, end - 1) : ""
    }
    end = index(rest, " ")
    return end ? substr(rest, 1, end - 1) : rest
}

{
    at = index($0, "type=")
    if (at == 0)
        next
    type = substr($0, at + 5)
    end = index(type, " ")
    if (end)
        type = substr(type, 1, end - 1)
    if (type != "QIRN_AVC" && type != "QIRN_NETCTL")
        next

    container = field($0, "container_id")
    if (container == "")
        next

    if (!match($0, /audit\([0-9]+/))
        next
    seconds = substr($0, RSTART + 6, RLENGTH - 6) + 0
    if (seconds > 10000000000)
        seconds = int(seconds / 1000)
    if (seconds != last_seconds) {
        last_seconds = seconds
        stamp = strftime("%b %d %H:%M:%S", seconds)
    }

    path = type == "QIRN_AVC" ? name_value($0) : field($0, "proc_path")
    if (path == "")
        next

    operation = ""
    open = index($0, "{")
    if (open) {
        closing = index(substr($0, open + 1), "}")
        if (closing) {
            operation = tolower(substr($0, open + 1, closing - 1))
            gsub(/[ \t\r\n\v\f]/, "", operation)
        }
    }
    if (type == "QIRN_NETCTL")
        event = "netctl"
    else if (operation ~ /exec|interpret/)
        event = "exectl"
    else if (operation ~ /write|truncate|setattr|unlink|rename/)
        event = "filectl"
    else
        next

    at = index($0, "avc:")
    if (at == 0)
        next
    word = substr($0, at + 4)
    sub(/^[ \t]+/, "", word)
    if (match(word, /[ \t:]/))
        word = substr(word, 1, RSTART - 1)
    word = tolower(word)
    if (word ~ /denied/)
        status = "enforcing"
    else if (word ~ /detect/)
        status = "permissive"
    else
        next

    key = container "|" path "|" stamp
    if (key in seen)
        next
    seen[key] = 1
    if (++cached > 1000) {
        split("", seen)
        cached = 0
    }

    print stamp ",container_id=" container ",Event=" event ",path=" path ",status=" status
    if (flush)
        fflush()
}
