-- The roles of the fleet's event store. Cluster-wide, so created once per
-- PostgreSQL cluster; run by qirn-fleet-setup.sql. Nothing here can log in
-- with a password until one is set (see README.md).
--
--   qirn_fleet_owner  owns the schema; no login
--   qirn_collector    the collector's loader: inserts events, never changes
--                     or deletes one
--   qirn_hosts        group of the per-host roles (one login role per host,
--                     added by qirn-fleet-add-host.sql): each reads its own
--                     rows only, for its completeness loop
--   qirn_readers      the security team: reads every row, changes nothing
DO $$
BEGIN
    IF NOT EXISTS (SELECT FROM pg_roles WHERE rolname = 'qirn_fleet_owner') THEN
        CREATE ROLE qirn_fleet_owner NOLOGIN;
    END IF;
    IF NOT EXISTS (SELECT FROM pg_roles WHERE rolname = 'qirn_collector') THEN
        CREATE ROLE qirn_collector LOGIN;
    END IF;
    IF NOT EXISTS (SELECT FROM pg_roles WHERE rolname = 'qirn_hosts') THEN
        CREATE ROLE qirn_hosts NOLOGIN;
    END IF;
    IF NOT EXISTS (SELECT FROM pg_roles WHERE rolname = 'qirn_readers') THEN
        CREATE ROLE qirn_readers NOLOGIN;
    END IF;
END
$$;

