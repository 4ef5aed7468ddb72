-- The fleet store's roles. Cluster-wide, so made once per PostgreSQL cluster,
-- by `qirn-fleet-admin init` as the database superuser, in one transaction.
-- None of them logs in; each host gets a login role of its own (add-host).
--
--   qirn_fleet_owner       owns the schema and the store's functions
--   qirn_hosts             every host role: calls the store's functions,
--                          reads its own rows, changes nothing directly
--   qirn_hosts_cert        the host roles that log in by client certificate
--   qirn_hosts_password    the host roles that log in by password
--   qirn_readers           the security team: reads every row, changes nothing
DO $$
DECLARE
    wanted text;
BEGIN
    FOREACH wanted IN ARRAY ARRAY['qirn_fleet_owner', 'qirn_hosts', 'qirn_hosts_cert',
                                  'qirn_hosts_password', 'qirn_readers']
    LOOP
        IF NOT EXISTS (SELECT FROM pg_roles WHERE rolname = wanted) THEN
            EXECUTE format('CREATE ROLE %I NOLOGIN', wanted);
        END IF;
    END LOOP;
END
$$;
