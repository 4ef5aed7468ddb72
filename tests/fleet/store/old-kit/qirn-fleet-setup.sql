-- Creates the fleet's event store: roles, database and schema. The one
-- command, as the database superuser, from this directory:
--
--   sudo -u postgres psql -v ON_ERROR_STOP=1 -f qirn-fleet-setup.sql
--
-- Safe to run again: what exists is kept.
\set ON_ERROR_STOP on
-- Quiet about what exists already.
SET client_min_messages = warning;
\ir qirn-fleet-roles.sql

-- Bytes as written: the service writes a line's values unescaped and does
-- not promise UTF-8, so the database takes any byte but NUL and compares
-- bytewise (C collation), which also keeps the indexes cheap.
SELECT 'CREATE DATABASE qirn_fleet OWNER qirn_fleet_owner ENCODING ''SQL_ASCII'' '
       'LC_COLLATE ''C'' LC_CTYPE ''C'' TEMPLATE template0'
WHERE NOT EXISTS (SELECT FROM pg_database WHERE datname = 'qirn_fleet') \gexec
REVOKE ALL ON DATABASE qirn_fleet FROM PUBLIC;
GRANT CONNECT ON DATABASE qirn_fleet TO qirn_collector, qirn_hosts, qirn_readers;

\connect qirn_fleet
SET client_min_messages = warning;
SET ROLE qirn_fleet_owner;
\ir qirn-fleet-schema.sql
