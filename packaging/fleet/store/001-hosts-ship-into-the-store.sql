-- Migration 1: hosts ship straight into the store under their own roles.
--
-- Run by `qirn-fleet-admin migrate` (and init) inside one transaction, in
-- database qirn_fleet, as the superuser with the role set to
-- qirn_fleet_owner, so that everything made here belongs to the owner.
-- A database made by the old rsyslog-fed kit (hosts keyed by sender, events
-- keyed by sender text) is upgraded: its rows move into the new tables and
-- its tables, functions and the collector's grants go.

CREATE SCHEMA IF NOT EXISTS qirn_fleet;
REVOKE ALL ON SCHEMA qirn_fleet FROM PUBLIC;
GRANT USAGE ON SCHEMA qirn_fleet TO qirn_hosts, qirn_readers;

-- The old kit's tables step aside; their rows are copied further down.
DO $$
BEGIN
    IF EXISTS (SELECT FROM information_schema.columns
               WHERE table_schema = 'qirn_fleet' AND table_name = 'hosts'
                 AND column_name = 'sender') THEN
        -- A schema of their own, indexes and constraints with them: their
        -- names are the new tables' names.
        CREATE SCHEMA qirn_fleet_legacy;
        ALTER TABLE qirn_fleet.hosts SET SCHEMA qirn_fleet_legacy;
        ALTER TABLE qirn_fleet.events SET SCHEMA qirn_fleet_legacy;
        ALTER TABLE qirn_fleet.unparsed SET SCHEMA qirn_fleet_legacy;
        DROP FUNCTION IF EXISTS qirn_fleet.store_event(text, text, text, text, text, text, text,
                                                       text);
        DROP FUNCTION IF EXISTS qirn_fleet.store_unparsed(text, text, text);
        DROP FUNCTION IF EXISTS qirn_fleet.event_time(text, timestamptz);
    END IF;
END
$$;

CREATE TABLE qirn_fleet.schema_version (
    version integer PRIMARY KEY,
    applied timestamptz NOT NULL DEFAULT now(),
    description text NOT NULL
);

-- A host is its login role; the name is what people call it. Renaming
-- changes the name only: the role (the credential's identity) and the id
-- every row holds stay. A retired host keeps its rows and its id.
CREATE TABLE qirn_fleet.hosts (
    id integer GENERATED ALWAYS AS IDENTITY PRIMARY KEY,
    name text NOT NULL UNIQUE CONSTRAINT hosts_name_valid
        CHECK (name ~ '^[a-z0-9][a-z0-9.-]{0,49}$'),
    role name NOT NULL UNIQUE,
    created timestamptz NOT NULL DEFAULT now(),
    retired timestamptz
);

-- One row per event, partitioned by month of the time as written.
-- No foreign key to hosts: it would cost a trigger per row on the hot path,
-- and hosts are retired, never deleted.
CREATE TABLE qirn_fleet.events (
    host_id integer NOT NULL,
    -- The time as written, read in the year nearest to the moment the store
    -- first saw it (the year rule): the host's wall clock.
    event_at timestamp(0) NOT NULL,
    -- The same moment as an instant, read in the zone the agent named; NULL
    -- for rows moved from the old kit, whose zone nobody recorded.
    event_instant timestamptz,
    time_written text NOT NULL,
    container_id text NOT NULL,
    event text NOT NULL,
    path text NOT NULL,
    status text NOT NULL,
    received timestamptz NOT NULL DEFAULT now(),
    -- The line as the service wrote it, byte for byte: what the loop compares.
    line text NOT NULL,
    -- sha256 of container_id|path|time_written, computed here from the row,
    -- never taken from a client; a path may be longer than an index entry.
    key_digest bytea NOT NULL
) PARTITION BY RANGE (event_at);

-- The identity is (host, year, digest). A unique index on a partitioned table
-- must hold the partition key, so it is (host, event_at, digest): the same
-- identity, because the digest fixes the time as written and the year then
-- fixes event_at, while event_at fixes the year. It is also the index of a
-- host's fetch over a time range (the loop's, and the readers').
CREATE UNIQUE INDEX events_identity ON qirn_fleet.events (host_id, event_at, key_digest);
-- One container or one path fleet-wide: equality, any length.
CREATE INDEX events_container ON qirn_fleet.events USING hash (container_id);
CREATE INDEX events_path ON qirn_fleet.events USING hash (path);
-- Counts per kind and status over instants, from the index alone.
CREATE INDEX events_instant_kind ON qirn_fleet.events (event_instant, event, status);

-- Times outside the months made ahead land here until `partitions` moves
-- them into a month of their own; a ship never fails for want of a month.
CREATE TABLE qirn_fleet.events_other PARTITION OF qirn_fleet.events DEFAULT;

-- Lines that are no event lines, as bytes (a NUL byte included), with why.
CREATE TABLE qirn_fleet.unparsed (
    id bigint GENERATED ALWAYS AS IDENTITY PRIMARY KEY,
    host_id integer NOT NULL,
    received timestamptz NOT NULL DEFAULT now(),
    reason text NOT NULL,
    line bytea NOT NULL
);
CREATE INDEX unparsed_host_received ON qirn_fleet.unparsed (host_id, received);
-- The latest unparsed lines fleet-wide.
CREATE INDEX unparsed_received ON qirn_fleet.unparsed (received);

-- Where each host's agent has committed up to, per stream. Moved only by
-- agent_ship, in the transaction of the rows it covers.
CREATE TABLE qirn_fleet.positions (
    host_id integer NOT NULL,
    stream text NOT NULL CHECK (stream IN ('events', 'backfill')),
    file_key text NOT NULL,
    file_offset bigint NOT NULL CHECK (file_offset >= 0),
    updated timestamptz NOT NULL DEFAULT now(),
    PRIMARY KEY (host_id, stream)
);

-- Last contact, lag and the lease of the one agent that ships for a host.
CREATE TABLE qirn_fleet.heartbeats (
    host_id integer PRIMARY KEY,
    agent text,
    lease_until timestamptz,
    last_contact timestamptz,
    lag_bytes bigint NOT NULL DEFAULT 0,
    lag_seconds double precision NOT NULL DEFAULT 0,
    zone text,
    heartbeat_seconds integer NOT NULL DEFAULT 30 CHECK (heartbeat_seconds > 0)
);

-- Events stored per host, kind and status, kept by agent_ship: the store's
-- metrics never count the big table.
CREATE TABLE qirn_fleet.event_counts (
    host_id integer NOT NULL,
    event text NOT NULL,
    status text NOT NULL,
    events bigint NOT NULL,
    PRIMARY KEY (host_id, event, status)
);

-- The session's host: its id when the login role is an active host, else NULL.
CREATE FUNCTION qirn_fleet.session_host() RETURNS integer
LANGUAGE sql STABLE SECURITY DEFINER
SET search_path = pg_catalog, pg_temp
AS $$
    SELECT id FROM qirn_fleet.hosts WHERE role = session_user AND retired IS NULL
$$;

-- Month `mo`, day `d` and `secs` seconds into the day, in year `y`; NULL when
-- the year lacks the day. A single expression, inlined where it is used.
CREATE FUNCTION qirn_fleet.day_in_year(y integer, mo integer, d integer, secs integer)
RETURNS timestamp
LANGUAGE sql IMMUTABLE PARALLEL SAFE
AS $$
    SELECT CASE WHEN d <= 28 OR d <= extract(day FROM make_date(y, mo, 1) +
                                                      interval '1 month - 1 day')
                THEN make_timestamp(y, mo, d, 0, 0, 0) + make_interval(secs => secs) END
$$;

-- The time as written read in year `y`; NULL when it is no such time or the
-- year lacks the day. A single expression, inlined where it is used.
CREATE FUNCTION qirn_fleet.year_candidate(tw text, y integer) RETURNS timestamp
LANGUAGE sql IMMUTABLE PARALLEL SAFE
AS $$
    SELECT CASE
        WHEN tw ~ '^[A-Z][a-z]{2} [0-9 ][0-9] ([01][0-9]|2[0-3]):[0-5][0-9]:[0-6][0-9]$'
             AND strpos('JanFebMarAprMayJunJulAugSepOctNovDec', substr(tw, 1, 3)) % 3 = 1
             AND substr(tw, 5, 2) NOT IN (' 0', '00')
             AND (substr(tw, 5, 2) <= '28' OR substr(tw, 5, 1) = ' ' OR
                  substr(tw, 5, 2)::integer <= extract(day FROM make_date(y,
                      (strpos('JanFebMarAprMayJunJulAugSepOctNovDec', substr(tw, 1, 3)) + 2) / 3,
                      1) + interval '1 month - 1 day'))
        THEN make_timestamp(y, (strpos('JanFebMarAprMayJunJulAugSepOctNovDec',
                                       substr(tw, 1, 3)) + 2) / 3,
                            trim(substr(tw, 5, 2))::integer, 0, 0, 0) +
             make_interval(secs => substr(tw, 8, 2)::integer * 3600 +
                                   substr(tw, 11, 2)::integer * 60 +
                                   substr(tw, 14, 2)::integer)
    END
$$;

-- The time as written ("%b %d %H:%M:%S") in the year that puts it nearest to
-- `ref` (the store's now, on the host's wall clock): NULL when it is no such
-- time or names a day its year lacks (29 February outside leap years); on a
-- tie the earlier year. One expression of FROM-less subselects, so that the
-- planner flattens it into the ship's statement instead of calling a
-- function per row; agent_ship spells out the same expression.
CREATE FUNCTION qirn_fleet.event_time(time_written text, ref timestamp) RETURNS timestamp
LANGUAGE sql IMMUTABLE PARALLEL SAFE
AS $$
    SELECT CASE WHEN c2 IS NOT NULL AND (b01 IS NULL OR
                     greatest(c2 - ref, ref - c2) < greatest(b01 - ref, ref - b01))
                THEN c2 ELSE b01 END
    FROM (SELECT c2, CASE WHEN c1 IS NOT NULL AND (c0 IS NULL OR
                               greatest(c1 - ref, ref - c1) < greatest(c0 - ref, ref - c0))
                          THEN c1 ELSE c0 END AS b01
          FROM (SELECT qirn_fleet.year_candidate(time_written, y - 1) AS c0,
                       qirn_fleet.year_candidate(time_written, y) AS c1,
                       qirn_fleet.year_candidate(time_written, y + 1) AS c2
                FROM (SELECT extract(year FROM ref)::integer AS y) AS r) AS c) AS b
$$;

-- The host that may act: the session's active host, or QF003.
CREATE FUNCTION qirn_fleet.acting_host() RETURNS integer
LANGUAGE plpgsql STABLE SECURITY DEFINER
SET search_path = pg_catalog, pg_temp
AS $$
DECLARE
    host integer := qirn_fleet.session_host();
BEGIN
    IF host IS NULL THEN
        RAISE EXCEPTION 'role % is not an enrolled host, or the host is retired', session_user
            USING ERRCODE = 'QF003', HINT = 'qirn-fleet-admin add-host';
    END IF;
    RETURN host;
END
$$;

-- Takes or renews the host's lease for `agent`, records the contact; QF002
-- when another agent holds an unexpired lease. Locks the host's heartbeat
-- row: one ship or heartbeat of a host at a time.
CREATE FUNCTION qirn_fleet.take_lease(host integer, agent text, zone text,
                                      heartbeat_seconds integer)
RETURNS void
LANGUAGE plpgsql SECURITY DEFINER
SET search_path = pg_catalog, pg_temp
AS $$
DECLARE
    beat qirn_fleet.heartbeats;
BEGIN
    IF agent IS NULL OR agent = '' THEN
        RAISE EXCEPTION 'the agent must name itself' USING ERRCODE = '22023';
    END IF;
    INSERT INTO qirn_fleet.heartbeats (host_id) VALUES (host) ON CONFLICT DO NOTHING;
    SELECT * INTO beat FROM qirn_fleet.heartbeats h WHERE h.host_id = host FOR UPDATE;
    IF beat.agent IS DISTINCT FROM agent AND beat.lease_until > now() THEN
        RAISE EXCEPTION 'agent % holds the lease of this host until %', beat.agent,
                        beat.lease_until
            USING ERRCODE = 'QF002';
    END IF;
    UPDATE qirn_fleet.heartbeats h
    SET agent = take_lease.agent,
        zone = coalesce(take_lease.zone, h.zone),
        heartbeat_seconds = coalesce(take_lease.heartbeat_seconds, h.heartbeat_seconds),
        lease_until = now() + make_interval(
            secs => 3 * coalesce(take_lease.heartbeat_seconds, h.heartbeat_seconds)),
        last_contact = now()
    WHERE h.host_id = host;
END
$$;

CREATE FUNCTION qirn_fleet.agent_position(stream text)
RETURNS TABLE (file_key text, file_offset bigint)
LANGUAGE plpgsql STABLE SECURITY DEFINER
SET search_path = pg_catalog, pg_temp
AS $$
DECLARE
    host integer := qirn_fleet.acting_host();
BEGIN
    RETURN QUERY SELECT p.file_key, p.file_offset FROM qirn_fleet.positions p
                 WHERE p.host_id = host AND p.stream = agent_position.stream;
END
$$;

CREATE FUNCTION qirn_fleet.agent_heartbeat(agent text, zone text, heartbeat_seconds integer,
                                           lag_bytes bigint, lag_seconds double precision)
RETURNS void
LANGUAGE plpgsql SECURITY DEFINER
SET search_path = pg_catalog, pg_temp
AS $$
DECLARE
    host integer := qirn_fleet.acting_host();
BEGIN
    IF heartbeat_seconds IS NULL OR heartbeat_seconds < 1 THEN
        RAISE EXCEPTION 'heartbeat_seconds must be at least 1' USING ERRCODE = '22023';
    END IF;
    -- An unknown zone fails here, not in the middle of a ship.
    PERFORM now() AT TIME ZONE zone;
    PERFORM qirn_fleet.take_lease(host, agent, zone, heartbeat_seconds);
    UPDATE qirn_fleet.heartbeats h
    SET lag_bytes = greatest(coalesce(agent_heartbeat.lag_bytes, 0), 0),
        lag_seconds = greatest(coalesce(agent_heartbeat.lag_seconds, 0), 0)
    WHERE h.host_id = host;
END
$$;

CREATE FUNCTION qirn_fleet.agent_release(agent text)
RETURNS void
LANGUAGE plpgsql SECURITY DEFINER
SET search_path = pg_catalog, pg_temp
AS $$
DECLARE
    host integer := qirn_fleet.acting_host();
BEGIN
    UPDATE qirn_fleet.heartbeats h SET lease_until = now(), last_contact = now()
    WHERE h.host_id = host AND h.agent = agent_release.agent;
END
$$;

-- One batch: rows and position in the caller's one transaction. The lines
-- are parsed, dated and inserted by set-based statements; nothing here runs
-- per row in PL/pgSQL.
CREATE FUNCTION qirn_fleet.agent_ship(agent text, stream text, expected_file text,
                                      expected_offset bigint, file_key text, end_offset bigint,
                                      zone text, lines text[], unparsed_lines bytea[],
                                      unparsed_reasons text[])
RETURNS TABLE (stored bigint, duplicates bigint, unparsed bigint)
LANGUAGE plpgsql SECURITY DEFINER
SET search_path = pg_catalog, pg_temp
AS $$
DECLARE
    host integer := qirn_fleet.acting_host();
    -- The year rule's reference, once per call: now on the host's wall clock.
    ref timestamp := now() AT TIME ZONE zone;
    year integer := extract(year FROM ref);
    moved integer;
    parsed_count bigint;
    stored_count bigint;
    unparsed_count bigint;
BEGIN
    IF stream IS NULL OR stream NOT IN ('events', 'backfill') THEN
        RAISE EXCEPTION 'stream must be events or backfill, not %', stream
            USING ERRCODE = '22023';
    END IF;
    IF file_key IS NULL OR file_key = '' OR end_offset IS NULL OR end_offset < 0 THEN
        RAISE EXCEPTION 'the new position must name a file and an offset' USING ERRCODE = '22023';
    END IF;
    IF coalesce(cardinality(unparsed_lines), 0) <> coalesce(cardinality(unparsed_reasons), 0) THEN
        RAISE EXCEPTION 'unparsed_lines and unparsed_reasons differ in length'
            USING ERRCODE = '22023';
    END IF;
    PERFORM qirn_fleet.take_lease(host, agent, zone, NULL);

    -- The position moves only from where the caller believes it is.
    UPDATE qirn_fleet.positions p
    SET file_key = agent_ship.file_key, file_offset = end_offset, updated = now()
    WHERE p.host_id = host AND p.stream = agent_ship.stream
      AND p.file_key = expected_file AND p.file_offset = expected_offset;
    GET DIAGNOSTICS moved = ROW_COUNT;
    IF moved = 0 THEN
        IF expected_file = '' AND expected_offset = 0 THEN
            INSERT INTO qirn_fleet.positions AS p (host_id, stream, file_key, file_offset)
            VALUES (host, agent_ship.stream, agent_ship.file_key, end_offset)
            ON CONFLICT DO NOTHING;
            GET DIAGNOSTICS moved = ROW_COUNT;
        END IF;
        IF moved = 0 THEN
            RAISE EXCEPTION 'the position of stream % is not % at %', agent_ship.stream,
                            quote_literal(expected_file), expected_offset
                USING ERRCODE = 'QF001';
        END IF;
    END IF;

    -- Fields by the event line's anchors: the time is the first 15
    -- characters, then ",container_id="; the container runs to the first
    -- ",Event=<word>,path="; the path runs to the ",status=<word>" that
    -- ends the line. (SQL_ASCII: a character is a byte.) One statement.
    WITH parsed AS MATERIALIZED (
        SELECT c.line, c.time_written,
               CASE WHEN c.ok THEN substr(c.line, 30, c.at - 30) END AS container_id,
               CASE WHEN c.ok THEN c.event END AS event,
               CASE WHEN c.ok THEN substr(c.line, c.path_start,
                                          length(c.line) - c.ending - c.path_start + 1) END AS path,
               CASE WHEN c.ok THEN right(c.line, c.ending - 8) END AS status,
               c.event_at,
               CASE WHEN NOT c.ok THEN 'not an event line'
                    WHEN c.event_at IS NULL THEN 'time is not a date' END AS reason
        -- Steps of subqueries, each fenced (OFFSET 0): flattened, their
        -- expressions would be copied into every use and computed again.
        FROM (
            SELECT b.line, b.time_written, b.at, b.ending, w.event, w.path_start,
                   b.at > 0 AND b.ending IS NOT NULL AND
                       length(b.line) >= w.path_start - 1 + b.ending AS ok,
                   -- The year rule's fast path: read in the year of `ref`, a
                   -- time within 150 days of it is the nearest (the other
                   -- years' are 215 days away or more); else event_time.
                   CASE WHEN NOT b.dated THEN NULL
                        WHEN b.this_year BETWEEN ref - interval '150 days'
                                             AND ref + interval '150 days' THEN b.this_year
                        ELSE qirn_fleet.event_time(b.time_written, ref) END AS event_at
            FROM (
                SELECT a.*,
                       -- The first ",Event=" is nearly always the anchor; else
                       -- the first one followed by a word and ",path=".
                       CASE WHEN NOT a.opens THEN 0
                            WHEN a.first_event > 0 AND
                                 (substr(a.line, 29 + a.first_event, 20) = ',Event=filectl,path=' OR
                                  substr(a.line, 29 + a.first_event, 19)
                                      IN (',Event=exectl,path=', ',Event=netctl,path='))
                            THEN 29 + a.first_event
                            ELSE regexp_instr(a.line, ',Event=(exectl|filectl|netctl),path=', 30)
                       END AS at,
                       CASE WHEN a.dated THEN qirn_fleet.day_in_year(year,
                           (strpos('JanFebMarAprMayJunJulAugSepOctNovDec', substr(a.line, 1, 3))
                               + 2) / 3,
                           trim(substr(a.line, 5, 2))::integer,
                           substr(a.line, 8, 2)::integer * 3600 +
                               substr(a.line, 11, 2)::integer * 60 +
                               substr(a.line, 14, 2)::integer) END AS this_year
                FROM (
                    SELECT l.line, left(l.line, 15) AS time_written,
                           substr(l.line, 16, 14) = ',container_id=' AS opens,
                           strpos(substr(l.line, 30), ',Event=') AS first_event,
                           CASE WHEN right(l.line, 17) = ',status=enforcing' THEN 17
                                WHEN right(l.line, 18) = ',status=permissive' THEN 18 END AS ending,
                           left(l.line, 15) ~ '^[A-Z][a-z]{2} [0-9 ][0-9] ([01][0-9]|2[0-3]):[0-5][0-9]:[0-6][0-9]$'
                               AND strpos('JanFebMarAprMayJunJulAugSepOctNovDec',
                                          substr(l.line, 1, 3)) % 3 = 1
                               AND substr(l.line, 5, 2) NOT IN (' 0', '00') AS dated
                    FROM unnest(lines) AS l(line)
                    -- An agent sends no NULL; were one sent, it is no line.
                    WHERE l.line IS NOT NULL
                    OFFSET 0) AS a
                OFFSET 0) AS b
            CROSS JOIN LATERAL (
                SELECT CASE WHEN substr(b.line, b.at + 7, 7) = 'filectl' THEN 'filectl'
                            WHEN substr(b.line, b.at + 7, 6) = 'exectl' THEN 'exectl'
                            ELSE 'netctl' END AS event,
                       CASE WHEN substr(b.line, b.at + 7, 7) = 'filectl' THEN b.at + 20
                            ELSE b.at + 19 END AS path_start) AS w
            OFFSET 0) AS c
    ), stored_rows AS (
        INSERT INTO qirn_fleet.events AS e (host_id, event_at, event_instant, time_written,
                                            container_id, event, path, status, line, key_digest)
        SELECT host, p.event_at, p.event_at AT TIME ZONE zone, p.time_written, p.container_id,
               p.event, p.path, p.status, p.line,
               sha256(textsend(p.container_id || '|' || p.path || '|' || p.time_written))
        FROM parsed p
        WHERE p.reason IS NULL
        ON CONFLICT DO NOTHING
        RETURNING e.event, e.status
    ), counted AS (
        INSERT INTO qirn_fleet.event_counts AS c (host_id, event, status, events)
        SELECT host, r.event, r.status, count(*) FROM stored_rows r GROUP BY r.event, r.status
        ON CONFLICT (host_id, event, status) DO UPDATE SET events = c.events + excluded.events
    ), kept AS (
        INSERT INTO qirn_fleet.unparsed (host_id, reason, line)
        SELECT host, p.reason, textsend(p.line) FROM parsed p WHERE p.reason IS NOT NULL
        UNION ALL
        SELECT host, coalesce(u.reason, 'no reason given'), u.line
        FROM unnest(unparsed_lines, unparsed_reasons) AS u(line, reason)
        WHERE u.line IS NOT NULL
        RETURNING 1
    )
    SELECT (SELECT count(*) FROM stored_rows),
           (SELECT count(*) FROM parsed p WHERE p.reason IS NULL),
           (SELECT count(*) FROM kept)
    INTO stored_count, parsed_count, unparsed_count;

    RETURN QUERY SELECT stored_count, parsed_count - stored_count, unparsed_count;
END
$$;

-- Months are made ahead by `partitions`; rows that waited in events_other
-- move into their month when it is made. Owner only.
CREATE FUNCTION qirn_fleet.make_partitions(first_month date, months integer)
RETURNS integer
LANGUAGE plpgsql
SET search_path = pg_catalog, pg_temp
AS $$
DECLARE
    month date;
    made integer := 0;
    partition text;
BEGIN
    FOR i IN 0 .. months - 1 LOOP
        month := date_trunc('month', first_month)::date + make_interval(months => i);
        partition := 'events_' || to_char(month, 'YYYY_MM');
        CONTINUE WHEN to_regclass('qirn_fleet.' || partition) IS NOT NULL;
        EXECUTE format('CREATE TABLE qirn_fleet.%I (LIKE qirn_fleet.events)', partition);
        EXECUTE format('WITH moved AS (DELETE FROM qirn_fleet.events_other '
                       'WHERE event_at >= %L AND event_at < %L RETURNING *) '
                       'INSERT INTO qirn_fleet.%I SELECT * FROM moved',
                       month, month + interval '1 month', partition);
        EXECUTE format('ALTER TABLE qirn_fleet.events ATTACH PARTITION qirn_fleet.%I '
                       'FOR VALUES FROM (%L) TO (%L)', partition, month,
                       month + interval '1 month');
        made := made + 1;
    END LOOP;
    RETURN made;
END
$$;

-- Drops the months that end before `cutoff` and the waiting rows older than
-- it; returns the partitions dropped. Owner only.
CREATE FUNCTION qirn_fleet.drop_partitions_before(cutoff date)
RETURNS SETOF text
LANGUAGE plpgsql
SET search_path = pg_catalog, pg_temp
AS $$
DECLARE
    partition record;
BEGIN
    FOR partition IN
        SELECT c.relname
        FROM pg_inherits i JOIN pg_class c ON c.oid = i.inhrelid
        WHERE i.inhparent = 'qirn_fleet.events'::regclass
          AND c.relname ~ '^events_[0-9]{4}_[0-9]{2}$'
          AND to_date(substr(c.relname, 8), 'YYYY_MM') + interval '1 month' <= cutoff
        ORDER BY c.relname
    LOOP
        EXECUTE format('DROP TABLE qirn_fleet.%I', partition.relname);
        RETURN NEXT partition.relname;
    END LOOP;
    DELETE FROM qirn_fleet.events_other WHERE event_at < cutoff;
    DELETE FROM qirn_fleet.unparsed WHERE received < cutoff;
END
$$;

-- The old kit's rows: each role of its sender map becomes a host (its name
-- the role's without qirn_host_); a sender no role claimed becomes a retired
-- host of its own. Digests are computed again from the rows.
DO $$
BEGIN
    IF to_regclass('qirn_fleet_legacy.hosts') IS NULL THEN
        RETURN;
    END IF;
    CREATE TEMP TABLE legacy_map (sender text PRIMARY KEY, host_id integer) ON COMMIT DROP;
    INSERT INTO qirn_fleet.hosts (name, role)
    SELECT DISTINCT ON (substr(role, 11)) substr(role, 11), role
    FROM qirn_fleet_legacy.hosts
    WHERE role LIKE 'qirn\_host\_%' AND substr(role, 11) ~ '^[a-z0-9][a-z0-9.-]{0,49}$';
    INSERT INTO legacy_map
    SELECT l.sender, h.id FROM qirn_fleet_legacy.hosts l JOIN qirn_fleet.hosts h
        ON h.role = l.role;
    INSERT INTO qirn_fleet.hosts (name, role, retired)
    SELECT DISTINCT ON (n.name) n.name, 'qirn_host_' || n.name, now()
    FROM (SELECT DISTINCT e.host AS sender FROM qirn_fleet_legacy.events e
          UNION SELECT u.host FROM qirn_fleet_legacy.unparsed u) AS s
    CROSS JOIN LATERAL (SELECT left('legacy-' || regexp_replace(lower(s.sender), '[^a-z0-9.-]',
                                                                  '-', 'g'), 50) AS name) AS n
    WHERE s.sender NOT IN (SELECT sender FROM legacy_map)
    ON CONFLICT DO NOTHING;
    INSERT INTO legacy_map
    SELECT s.sender, h.id
    FROM (SELECT DISTINCT e.host AS sender FROM qirn_fleet_legacy.events e
          UNION SELECT u.host FROM qirn_fleet_legacy.unparsed u) AS s
    JOIN qirn_fleet.hosts h ON h.name = left('legacy-' || regexp_replace(lower(s.sender),
                                                                         '[^a-z0-9.-]', '-', 'g'),
                                             50)
    ON CONFLICT DO NOTHING;
    -- Every month that holds a moved row gets its partition first.
    PERFORM qirn_fleet.make_partitions(m, 1)
    FROM (SELECT DISTINCT date_trunc('month', event_at)::date AS m
          FROM qirn_fleet_legacy.events) AS months;
    INSERT INTO qirn_fleet.events (host_id, event_at, time_written, container_id, event, path,
                                   status, received, line, key_digest)
    SELECT m.host_id, e.event_at, e.time_written, e.container_id, e.event, e.path, e.status,
           e.received, e.line,
           sha256(textsend(e.container_id || '|' || e.path || '|' || e.time_written))
    FROM qirn_fleet_legacy.events e JOIN legacy_map m ON m.sender = e.host
    ORDER BY e.id
    ON CONFLICT DO NOTHING;
    INSERT INTO qirn_fleet.event_counts (host_id, event, status, events)
    SELECT host_id, event, status, count(*) FROM qirn_fleet.events
    GROUP BY host_id, event, status;
    INSERT INTO qirn_fleet.unparsed (host_id, received, reason, line)
    SELECT m.host_id, u.received, u.reason, textsend(u.line)
    FROM qirn_fleet_legacy.unparsed u JOIN legacy_map m ON m.sender = u.host
    ORDER BY u.id;
    DROP SCHEMA qirn_fleet_legacy CASCADE;
    IF EXISTS (SELECT FROM pg_roles WHERE rolname = 'qirn_collector') THEN
        REVOKE ALL ON SCHEMA qirn_fleet FROM qirn_collector;
    END IF;
END
$$;

-- Row-level security, forced so that the owner's own functions are checked
-- too: a session sees and writes the rows of its own host only. The host is a
-- scalar subquery, evaluated once per statement, so that a host's fetch is
-- an index scan on host_id = $0 (a correlated or IN form becomes a hashed
-- subplan that reads every host's rows).
DO $$
DECLARE
    t text;
BEGIN
    FOREACH t IN ARRAY ARRAY['events', 'unparsed', 'positions', 'heartbeats', 'event_counts']
    LOOP
        EXECUTE format('ALTER TABLE qirn_fleet.%I ENABLE ROW LEVEL SECURITY', t);
        EXECUTE format('ALTER TABLE qirn_fleet.%I FORCE ROW LEVEL SECURITY', t);
        EXECUTE format('REVOKE ALL ON qirn_fleet.%I FROM PUBLIC', t);
        EXECUTE format('GRANT SELECT ON qirn_fleet.%I TO qirn_hosts, qirn_readers', t);
        EXECUTE format('CREATE POLICY own_host ON qirn_fleet.%I '
                       'USING (host_id = (SELECT qirn_fleet.session_host())) '
                       'WITH CHECK (host_id = (SELECT qirn_fleet.session_host()))', t);
        EXECUTE format('CREATE POLICY readers_read_all ON qirn_fleet.%I FOR SELECT '
                       'TO qirn_readers USING (true)', t);
    END LOOP;
END
$$;
ALTER TABLE qirn_fleet.hosts ENABLE ROW LEVEL SECURITY;
ALTER TABLE qirn_fleet.hosts FORCE ROW LEVEL SECURITY;
REVOKE ALL ON qirn_fleet.hosts, qirn_fleet.schema_version FROM PUBLIC;
GRANT SELECT ON qirn_fleet.hosts, qirn_fleet.schema_version TO qirn_hosts, qirn_readers;
CREATE POLICY own_host ON qirn_fleet.hosts FOR SELECT USING (role = session_user);
CREATE POLICY readers_read_all ON qirn_fleet.hosts FOR SELECT TO qirn_readers USING (true);

REVOKE ALL ON ALL FUNCTIONS IN SCHEMA qirn_fleet FROM PUBLIC;
GRANT EXECUTE ON FUNCTION qirn_fleet.session_host(),
                          qirn_fleet.agent_position(text),
                          qirn_fleet.agent_ship(text, text, text, bigint, text, bigint, text, text[],
                                                bytea[], text[]),
                          qirn_fleet.agent_heartbeat(text, text, integer, bigint,
                                                     double precision),
                          qirn_fleet.agent_release(text)
    TO qirn_hosts;
GRANT EXECUTE ON FUNCTION qirn_fleet.session_host() TO qirn_readers;

-- The security team's views: host names and UTC instants. security_invoker,
-- so the readers' own policy (read all) applies, not the owner's.
CREATE VIEW qirn_fleet.fleet_events WITH (security_invoker = true) AS
SELECT h.name AS host, e.event_instant AT TIME ZONE 'UTC' AS at_utc, e.event_at AS at_host,
       e.time_written, e.container_id, e.event, e.path, e.status, e.received, e.line,
       e.host_id, e.event_instant
FROM qirn_fleet.events e JOIN qirn_fleet.hosts h ON h.id = e.host_id;

CREATE VIEW qirn_fleet.fleet_unparsed WITH (security_invoker = true) AS
SELECT h.name AS host, u.received AT TIME ZONE 'UTC' AS received_utc, u.reason, u.line,
       u.host_id, u.received
FROM qirn_fleet.unparsed u JOIN qirn_fleet.hosts h ON h.id = u.host_id;

-- Counts per kind and status per hour of the last day, in UTC.
CREATE VIEW qirn_fleet.fleet_hourly_counts WITH (security_invoker = true) AS
SELECT date_trunc('hour', e.event_instant AT TIME ZONE 'UTC') AS hour_utc, e.event, e.status,
       count(*) AS events
FROM qirn_fleet.events e
WHERE e.event_instant >= now() - interval '1 day'
GROUP BY 1, 2, 3;

CREATE VIEW qirn_fleet.fleet_hosts WITH (security_invoker = true) AS
SELECT h.name AS host, h.role, h.created, h.retired, b.agent,
       b.last_contact AT TIME ZONE 'UTC' AS last_contact_utc, b.lag_bytes, b.lag_seconds,
       b.zone, coalesce(b.heartbeat_seconds, 30) AS heartbeat_seconds,
       (h.retired IS NULL AND (b.last_contact IS NULL OR
        b.last_contact < now() - make_interval(secs => 2 * b.heartbeat_seconds))) AS silent
FROM qirn_fleet.hosts h LEFT JOIN qirn_fleet.heartbeats b ON b.host_id = h.id;

GRANT SELECT ON qirn_fleet.fleet_events, qirn_fleet.fleet_unparsed,
                qirn_fleet.fleet_hourly_counts, qirn_fleet.fleet_hosts TO qirn_readers;

-- This month and the two after it; `partitions` keeps them ahead.
SELECT qirn_fleet.make_partitions((now() AT TIME ZONE 'UTC')::date, 3);

INSERT INTO qirn_fleet.schema_version (version, description)
VALUES (1, 'hosts ship straight into the store under their own roles');
