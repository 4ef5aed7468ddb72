-- The fleet's event store: every event of every host, each once.
-- Run by qirn-fleet-setup.sql as qirn_fleet_owner inside database qirn_fleet.

CREATE SCHEMA IF NOT EXISTS qirn_fleet;
REVOKE ALL ON SCHEMA qirn_fleet FROM PUBLIC;
GRANT USAGE ON SCHEMA qirn_fleet TO qirn_collector, qirn_hosts, qirn_readers;

-- Which authenticated sender (the address the collector saw, or the name in
-- the TLS certificate) belongs to which host role. A host reads the rows its
-- senders delivered, never what a message claims about itself.
CREATE TABLE IF NOT EXISTS qirn_fleet.hosts (
    sender text PRIMARY KEY,
    role name NOT NULL
);

-- One row per event. The identity is the sending host, the year and the
-- service's own record key (container, path and time as written): storing
-- an event again changes nothing, so a forwarder or the completeness loop
-- may send it as often as it likes. The line carries no year: the year
-- nearest to the moment the store first saw it joins the identity (see
-- event_time), so the same key a year later is another event, and a resend
-- within half a year, across New Year too, finds the first one.
CREATE TABLE IF NOT EXISTS qirn_fleet.events (
    id bigint GENERATED ALWAYS AS IDENTITY PRIMARY KEY,
    host text NOT NULL,
    -- The time as written, read in the year nearest to its reception: the
    -- host's wall clock, no time zone (the line has none).
    event_at timestamp(0) NOT NULL,
    event_year smallint GENERATED ALWAYS AS (extract(year FROM event_at)) STORED,
    time_written text NOT NULL,
    container_id text NOT NULL,
    event text NOT NULL,
    path text NOT NULL,
    status text NOT NULL,
    received timestamptz NOT NULL DEFAULT now(),
    -- The line as the service wrote it: what the completeness loop compares.
    line text NOT NULL,
    -- A digest of the record key, since a path may be longer than an index
    -- entry can hold.
    key_digest bytea NOT NULL,
    CONSTRAINT events_identity UNIQUE (host, event_year, key_digest)
);

-- A host's events over a time range (and the completeness loop's fetch).
CREATE INDEX IF NOT EXISTS events_host_time ON qirn_fleet.events (host, event_at);
-- One container or one path, fleet-wide: equality, any length.
CREATE INDEX IF NOT EXISTS events_container ON qirn_fleet.events USING hash (container_id);
CREATE INDEX IF NOT EXISTS events_path ON qirn_fleet.events USING hash (path);
-- Counts per event kind and status per hour, from the index alone.
CREATE INDEX IF NOT EXISTS events_time_kind ON qirn_fleet.events (event_at, event, status);

-- Lines that reached the collector but are no event lines: kept, never
-- dropped, with the reason.
CREATE TABLE IF NOT EXISTS qirn_fleet.unparsed (
    id bigint GENERATED ALWAYS AS IDENTITY PRIMARY KEY,
    host text NOT NULL,
    received timestamptz NOT NULL DEFAULT now(),
    reason text NOT NULL,
    line text NOT NULL
);
CREATE INDEX IF NOT EXISTS unparsed_host_received ON qirn_fleet.unparsed (host, received);

-- The time as written ("%b %d %H:%M:%S") in the year that puts it nearest to
-- `seen`; NULL when it is no such time (or names a day its year lacks).
CREATE OR REPLACE FUNCTION qirn_fleet.event_time(time_written text, seen timestamptz)
RETURNS timestamp
LANGUAGE plpgsql STABLE
AS $$
DECLARE
    seen_at timestamp := seen AT TIME ZONE 'UTC';
    month integer;
    day integer;
    seconds integer;
    best timestamp;
    candidate timestamp;
BEGIN
    IF time_written !~ '^[A-Z][a-z]{2} [0-9 ][0-9] [0-2][0-9]:[0-5][0-9]:[0-6][0-9]$' THEN
        RETURN NULL;
    END IF;
    month := array_position(ARRAY['Jan', 'Feb', 'Mar', 'Apr', 'May', 'Jun', 'Jul', 'Aug',
                                  'Sep', 'Oct', 'Nov', 'Dec'], substr(time_written, 1, 3));
    day := trim(substr(time_written, 5, 2))::integer;
    seconds := substr(time_written, 8, 2)::integer * 3600 +
               substr(time_written, 11, 2)::integer * 60 + substr(time_written, 14, 2)::integer;
    IF month IS NULL OR day < 1 OR substr(time_written, 8, 2)::integer > 23 THEN
        RETURN NULL;
    END IF;
    -- Checked, not caught: a day past the month's end is skipped for that
    -- year (29 February outside leap years).
    FOR year IN extract(year FROM seen_at)::integer - 1 .. extract(year FROM seen_at)::integer + 1
    LOOP
        candidate := make_date(year, month, 1);
        CONTINUE WHEN day > extract(day FROM candidate + interval '1 month' - interval '1 day');
        candidate := candidate + make_interval(days => day - 1, secs => seconds);
        IF best IS NULL OR abs(extract(epoch FROM candidate - seen_at)) <
                           abs(extract(epoch FROM best - seen_at)) THEN
            best := candidate;
        END IF;
    END LOOP;
    RETURN best;
END
$$;

-- Stores one event line, once: 'stored', 'duplicate', or 'unparsed' when its
-- time is no date (then it goes to the unparsed table). The fields come from
-- the loader, which reads the line by its anchors; `record_key` is the
-- service's record key of the line.
CREATE OR REPLACE FUNCTION qirn_fleet.store_event(sender text, line text, time_written text,
                                                  container_id text, event text, path text,
                                                  status text, record_key text)
RETURNS text
LANGUAGE plpgsql
AS $$
DECLARE
    at timestamp := qirn_fleet.event_time(time_written, now());
BEGIN
    IF at IS NULL THEN
        INSERT INTO qirn_fleet.unparsed (host, reason, line)
        VALUES (sender, 'time is not a date', store_event.line);
        RETURN 'unparsed';
    END IF;
    INSERT INTO qirn_fleet.events (host, event_at, time_written, container_id, event, path,
                                   status, line, key_digest)
    VALUES (sender, at, time_written, container_id, event, path, status, store_event.line,
            sha256(textsend(record_key)))
    ON CONFLICT DO NOTHING;
    IF FOUND THEN
        RETURN 'stored';
    END IF;
    RETURN 'duplicate';
END
$$;

CREATE OR REPLACE FUNCTION qirn_fleet.store_unparsed(sender text, line text, reason text)
RETURNS text
LANGUAGE sql
AS $$
    INSERT INTO qirn_fleet.unparsed (host, reason, line) VALUES (sender, reason, line);
    SELECT 'unparsed';
$$;

-- Row-level security: the collector inserts (and only inserts), each host
-- reads its own rows, the security team reads all. Nobody but the owner
-- changes or deletes a row.
ALTER TABLE qirn_fleet.events ENABLE ROW LEVEL SECURITY;
ALTER TABLE qirn_fleet.unparsed ENABLE ROW LEVEL SECURITY;
ALTER TABLE qirn_fleet.hosts ENABLE ROW LEVEL SECURITY;

REVOKE ALL ON qirn_fleet.events, qirn_fleet.unparsed, qirn_fleet.hosts FROM PUBLIC;
GRANT INSERT ON qirn_fleet.events, qirn_fleet.unparsed TO qirn_collector;
GRANT SELECT ON qirn_fleet.events, qirn_fleet.unparsed, qirn_fleet.hosts
    TO qirn_hosts, qirn_readers;
REVOKE ALL ON FUNCTION qirn_fleet.store_event(text, text, text, text, text, text, text, text),
                       qirn_fleet.store_unparsed(text, text, text) FROM PUBLIC;
GRANT EXECUTE ON FUNCTION qirn_fleet.store_event(text, text, text, text, text, text, text, text),
                          qirn_fleet.store_unparsed(text, text, text) TO qirn_collector;

DROP POLICY IF EXISTS collector_inserts ON qirn_fleet.events;
CREATE POLICY collector_inserts ON qirn_fleet.events FOR INSERT TO qirn_collector
    WITH CHECK (true);
DROP POLICY IF EXISTS collector_inserts ON qirn_fleet.unparsed;
CREATE POLICY collector_inserts ON qirn_fleet.unparsed FOR INSERT TO qirn_collector
    WITH CHECK (true);

DROP POLICY IF EXISTS host_reads_own ON qirn_fleet.hosts;
CREATE POLICY host_reads_own ON qirn_fleet.hosts FOR SELECT TO qirn_hosts
    USING (role = current_user);
DROP POLICY IF EXISTS host_reads_own ON qirn_fleet.events;
CREATE POLICY host_reads_own ON qirn_fleet.events FOR SELECT TO qirn_hosts
    USING (host IN (SELECT sender FROM qirn_fleet.hosts WHERE role = current_user));
DROP POLICY IF EXISTS host_reads_own ON qirn_fleet.unparsed;
CREATE POLICY host_reads_own ON qirn_fleet.unparsed FOR SELECT TO qirn_hosts
    USING (host IN (SELECT sender FROM qirn_fleet.hosts WHERE role = current_user));

DROP POLICY IF EXISTS readers_read_all ON qirn_fleet.events;
CREATE POLICY readers_read_all ON qirn_fleet.events FOR SELECT TO qirn_readers USING (true);
DROP POLICY IF EXISTS readers_read_all ON qirn_fleet.unparsed;
CREATE POLICY readers_read_all ON qirn_fleet.unparsed FOR SELECT TO qirn_readers USING (true);
DROP POLICY IF EXISTS readers_read_all ON qirn_fleet.hosts;
CREATE POLICY readers_read_all ON qirn_fleet.hosts FOR SELECT TO qirn_readers USING (true);
